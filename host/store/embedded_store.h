// The embedded store: counts its own revisions and commits for many threads concurrently.
#pragma once

#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <vector>

#include "host/store/lmdb_keyspace.h"
#include "host/store/store.h"

namespace vexa::store {

// Commits that wait at the same time share one sync of the disk: the first in the queue takes all of them, runs each
// with its own compares and its own revision in one LMDB transaction, and wakes the others. A failed compare fails only
// its own transaction; so does a transaction that is too large for the disk. A thread that holds a snapshot commits
// alone: if the store had to be reopened, the others would wait for its snapshot while it waited for them.
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
  struct Waiting {
    const Transaction* transaction = nullptr;
    std::optional<Result<Revision>> outcome;  // under mutex_
    std::condition_variable turn;             // the outcome is available, or the queue has no other leader
  };

  Result<Revision> CheckOnly(const Transaction& transaction) const;
  std::vector<Waiting*> TakeBatch();
  std::vector<Result<Revision>> RunBatch(std::span<Waiting* const> batch) noexcept;
  Status RunTogether(std::span<Waiting* const> batch, std::vector<Result<Revision>>& outcomes);

  const std::unique_ptr<LmdbKeyspace> keyspace_;
  std::mutex mutex_;
  std::deque<Waiting*> queue_;
  bool leading_ = false;  // a thread is running a batch
};

}  // namespace vexa::store
