#include "tests/support/faulty_store.h"

#include <map>
#include <optional>
#include <thread>
#include <utility>

namespace vexa::test {

struct FaultyStore::Faults {
  mutable std::mutex mutex;
  std::set<std::string, std::less<>> failing;
  std::optional<ErrorCode> snapshots;  // what each attempt to take one fails with
  std::optional<ErrorCode> commits;
  int conflicts = 0;
  std::optional<store::Health> health;
  int reads = 0;
  int health_reads = 0;
  struct Thread {
    SnapshotUse use;
    int open = 0;
  };
  std::map<std::thread::id, Thread> threads;

  bool CountAndCheck(std::string_view key) {
    const std::lock_guard lock(mutex);
    ++reads;
    return failing.contains(key);
  }
};

class FaultyStore::FaultySnapshot : public store::Snapshot {
 public:
  FaultySnapshot(std::unique_ptr<store::Snapshot> real, std::shared_ptr<Faults> faults)
      : real_(std::move(real)), faults_(std::move(faults)) {
    const std::lock_guard lock(faults_->mutex);
    Faults::Thread& thread = faults_->threads[thread_];
    ++thread.use.taken;
    if (thread.open++ > 0) ++thread.use.nested;
  }
  ~FaultySnapshot() override {
    const std::lock_guard lock(faults_->mutex);
    --faults_->threads[thread_].open;
  }
  FaultySnapshot(const FaultySnapshot&) = delete;
  FaultySnapshot& operator=(const FaultySnapshot&) = delete;

  store::Revision revision() const override { return real_->revision(); }

  Result<std::optional<store::ValueView>> Get(std::string_view key) const override {
    if (faults_->CountAndCheck(key)) return Error(ErrorCode::kInternal, "The read was made to fail");
    return real_->Get(key);
  }

  Result<std::vector<std::string>> Children(std::string_view prefix) const override {
    if (faults_->CountAndCheck(prefix)) return Error(ErrorCode::kInternal, "The read was made to fail");
    return real_->Children(prefix);
  }

  Status Scan(std::string_view prefix,
              const std::function<bool(std::string_view, const store::ValueView&)>& visit) const override {
    if (faults_->CountAndCheck(prefix)) return Error(ErrorCode::kInternal, "The scan was made to fail");
    return real_->Scan(prefix, visit);
  }

 private:
  const std::unique_ptr<store::Snapshot> real_;
  const std::shared_ptr<Faults> faults_;
  const std::thread::id thread_ = std::this_thread::get_id();
};

FaultyStore::FaultyStore(std::shared_ptr<store::Store> real)
    : real_(std::move(real)), faults_(std::make_shared<Faults>()) {}
FaultyStore::~FaultyStore() = default;

void FaultyStore::FailReadsOf(const std::string& key) {
  const std::lock_guard lock(faults_->mutex);
  faults_->failing.insert(key);
}

void FaultyStore::FailSnapshots(vexa::ErrorCode code) {
  const std::lock_guard lock(faults_->mutex);
  faults_->snapshots = code;
}

void FaultyStore::FailCommits(vexa::ErrorCode code) {
  const std::lock_guard lock(faults_->mutex);
  faults_->commits = code;
}

void FaultyStore::ConflictCommits(int times) {
  const std::lock_guard lock(faults_->mutex);
  faults_->conflicts = times;
}

void FaultyStore::ReportHealth(store::Health health) {
  const std::lock_guard lock(faults_->mutex);
  faults_->health = health;
}

void FaultyStore::Heal() {
  const std::lock_guard lock(faults_->mutex);
  faults_->failing.clear();
  faults_->snapshots.reset();
  faults_->commits.reset();
  faults_->conflicts = 0;
  faults_->health.reset();
}

int FaultyStore::reads() const {
  const std::lock_guard lock(faults_->mutex);
  return faults_->reads;
}

SnapshotUse FaultyStore::TakeSnapshotUse() const {
  const std::lock_guard lock(faults_->mutex);
  return std::exchange(faults_->threads[std::this_thread::get_id()].use, {});
}

int FaultyStore::health_reads() const {
  const std::lock_guard lock(faults_->mutex);
  return faults_->health_reads;
}

Result<std::unique_ptr<store::Snapshot>> FaultyStore::Read() const {
  {
    const std::lock_guard lock(faults_->mutex);
    if (faults_->snapshots) return Error(*faults_->snapshots, "The snapshot was made to fail");
  }
  auto real = real_->Read();
  if (!real) return real.error();
  return std::unique_ptr<store::Snapshot>(std::make_unique<FaultySnapshot>(std::move(*real), faults_));
}

Result<store::Revision> FaultyStore::Commit(const store::Transaction& transaction) {
  {
    const std::lock_guard lock(faults_->mutex);
    Faults::Thread& thread = faults_->threads[std::this_thread::get_id()];
    if (thread.open > 0) ++thread.use.at_commits;
    if (faults_->commits) return Error(*faults_->commits, "The commit was made to fail");
    if (faults_->conflicts > 0) {
      --faults_->conflicts;
      return Error(ErrorCode::kConflict, "The commit was made to come second");
    }
  }
  return real_->Commit(transaction);
}

Result<store::ChangeBatch> FaultyStore::Watch(std::string_view prefix, store::Revision from,
                                              std::chrono::milliseconds timeout) {
  return real_->Watch(prefix, from, timeout);
}

store::Health FaultyStore::health() const {
  {
    const std::lock_guard lock(faults_->mutex);
    ++faults_->health_reads;
    if (faults_->health) return *faults_->health;
  }
  return real_->health();
}

}  // namespace vexa::test
