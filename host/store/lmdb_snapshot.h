// A snapshot of the keyspace in LMDB.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "host/store/lmdb_environment.h"
#include "host/store/store.h"

namespace vexa::store {

// Values are returned without a copy: they are in the memory map, which stays mapped while the snapshot exists.
// Threads: one at a time.
class LmdbSnapshot final : public Snapshot {
 public:
  // `environment` stays alive as long as the snapshot. Errors: those of LmdbEnvironment::BeginRead, kCorrupt.
  static Result<std::unique_ptr<LmdbSnapshot>> Take(std::shared_ptr<LmdbEnvironment> environment);

  Revision revision() const override { return revision_; }
  Result<std::optional<ValueView>> Get(std::string_view key) const override;
  Result<std::vector<std::string>> Children(std::string_view prefix) const override;
  Status Scan(std::string_view prefix,
              const std::function<bool(std::string_view key, const ValueView& value)>& visit) const override;

  // The changes after `from` at or below `prefix`. Whole commits only: at most `max_changes` changes plus the rest of
  // the last commit.
  Result<ChangeBatch> ChangesAfter(Revision from, std::string_view prefix, std::size_t max_changes) const;

 private:
  LmdbSnapshot(std::shared_ptr<LmdbEnvironment> environment, ReadTransaction transaction)
      : environment_(std::move(environment)), transaction_(std::move(transaction)) {}

  const std::shared_ptr<LmdbEnvironment> environment_;
  const ReadTransaction transaction_;
  Revision revision_ = 0;
  Revision log_start_ = 0;
};

}  // namespace vexa::store
