// The embedded store: counts its own revisions and combines the commits of many threads.
#pragma once

#include <memory>
#include <utility>

#include "host/store/lmdb_keyspace.h"
#include "host/store/store.h"

namespace vexa::store {

// Commits that wait at the same time share one sync of the disk (commit_thread.h), each with its own compares and
// revision. A failed compare fails only its own transaction; so does a transaction that is too large for the disk.
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
  void LimitLockWaits(std::chrono::milliseconds longest) override { keyspace_->LimitLockWaits(longest); }

 private:
  Result<Revision> CheckCompares(const Transaction& transaction) const;

  const std::unique_ptr<LmdbKeyspace> keyspace_;
};

}  // namespace vexa::store
