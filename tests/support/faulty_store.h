// A store around a real one whose reads of named keys, or commits, can be made to fail. It counts what it is used for.
#pragma once

#include <memory>
#include <mutex>
#include <ostream>
#include <set>
#include <string>

#include "host/store/store.h"

namespace vexa::test {

// How a thread has used snapshots. While one is open, the real store cannot reuse space, and a second one may see
// another state than the first.
struct SnapshotUse {
  int taken = 0;
  int nested = 0;      // taken while the thread had another one open
  int at_commits = 0;  // commits of the thread while it had one open
  bool operator==(const SnapshotUse&) const = default;
};
inline std::ostream& operator<<(std::ostream& out, const SnapshotUse& use) {
  return out << use.taken << " taken, " << use.nested << " nested, " << use.at_commits << " open at commits";
}

// Threads: any, at the same time.
class FaultyStore : public store::Store {
 public:
  explicit FaultyStore(std::shared_ptr<store::Store> real);
  ~FaultyStore() override;

  // From now on reads of `key` fail, and so do scans that begin there.
  void FailReadsOf(const std::string& key);
  // From now on no snapshot can be taken: each attempt fails with `code`.
  void FailSnapshots(vexa::ErrorCode code = vexa::ErrorCode::kUnavailable);
  // From now on every commit fails with `code`, or the next `times` commits fail with a conflict.
  void FailCommits(vexa::ErrorCode code = vexa::ErrorCode::kNoSpace);
  void ConflictCommits(int times);
  // From now on the store reports this health.
  void ReportHealth(store::Health health);
  void Heal();

  // How many reads of keys and children, and scans, reached the store.
  int reads() const;
  // What the calling thread has done with snapshots since it last called this.
  SnapshotUse TakeSnapshotUse() const;
  // How often its health was requested.
  int health_reads() const;

  Result<std::unique_ptr<store::Snapshot>> Read() const override;
  Result<store::Revision> Commit(const store::Transaction& transaction) override;
  Result<store::ChangeBatch> Watch(std::string_view prefix, store::Revision from,
                                   std::chrono::milliseconds timeout) override;
  store::Health health() const override;

 private:
  class FaultySnapshot;
  struct Faults;
  const std::shared_ptr<store::Store> real_;
  const std::shared_ptr<Faults> faults_;
};

}  // namespace vexa::test
