// The embedded store: counts its own revisions and combines the commits of many threads.
#pragma once

#include <deque>
#include <memory>
#include <optional>
#include <span>
#include <vector>

#include "host/base/mutex.h"
#include "host/store/lmdb_keyspace.h"
#include "host/store/store.h"

namespace vexa::store {

// Commits that wait at the same time share one sync of the disk: the first thread in the queue becomes the leader. It
// runs all of them in one LMDB transaction, each with its own compares and revision, and wakes the other threads. A
// failed compare fails only its own transaction; so does a transaction that is too large for the disk. A thread that
// holds a snapshot commits alone: if the store had to be reopened, the others would wait for its snapshot while it
// waited for them.
// Threads: any, at the same time.
class EmbeddedStore final : public Store {
 public:
  explicit EmbeddedStore(std::unique_ptr<LmdbKeyspace> keyspace) : keyspace_(std::move(keyspace)) {}

  Result<std::unique_ptr<Snapshot>> Read() const override { return keyspace_->Read(); }
  Result<Revision> Commit(const Transaction& transaction) override;
  Result<ChangeBatch> Watch(std::string_view prefix, Revision from, std::chrono::milliseconds timeout) override {
    return keyspace_->Watch(prefix, from, timeout);
  }
  Health health() const override { return keyspace_->health(); }

 private:
  struct PendingCommit {
    const Transaction* transaction = nullptr;
    std::optional<Result<Revision>> outcome;  // under mutex_
    ConditionVariable done_or_leader;         // the outcome is available, or the queue has no other leader
  };

  Result<Revision> CheckCompares(const Transaction& transaction) const;
  std::vector<PendingCommit*> TakeBatch() VEXA_REQUIRES(mutex_);
  std::vector<Result<Revision>> RunBatch(std::span<PendingCommit* const> batch) noexcept;
  Status RunInOneTransaction(std::span<PendingCommit* const> batch, std::vector<Result<Revision>>& outcomes);

  const std::unique_ptr<LmdbKeyspace> keyspace_;
  Mutex mutex_;
  std::deque<PendingCommit*> queue_ VEXA_GUARDED_BY(mutex_);
  bool leading_ VEXA_GUARDED_BY(mutex_) = false;  // a leader is running a batch
};

}  // namespace vexa::store
