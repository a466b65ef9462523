// The keyspace in LMDB. Its callers choose the revisions: the embedded store counts its own; a mirror of a cluster
// database copies those of the database.
#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <span>
#include <string>

#include "host/base/mutex.h"
#include "host/store/lmdb_environment.h"
#include "host/store/lmdb_store.h"
#include "host/store/store.h"

namespace vexa::store {

// The changes of one commit. For a key that occurs twice, the last operation counts.
struct RevisionedOperations {
  Revision revision = 0;
  std::vector<Operation> operations;
};

// A view of one write transaction. Valid only within LmdbKeyspace::Update.
class KeyspaceWriter {
 public:
  // The last revision, including that of this transaction.
  Revision revision() const { return revision_; }

  // The revision that wrote `key`; 0 when it is absent.
  Result<Revision> RevisionOf(std::string_view key);

  // Applies `operations` as commit `revision` and logs their changes. Deleting an absent key changes nothing, but the
  // commit counts. Errors: kInvalid (`revision` is not greater than the last one, or a key or value has a size
  // that cannot be stored; the transaction must then be abandoned), and those of LmdbError.
  Status Apply(Revision revision, std::span<const Operation> operations);

  // For a copy of another keyspace. The copy has the other's revisions and no change log, so it cannot be watched.
  // Errors: those of LmdbError; the transaction must then be abandoned.

  // Stores `value` with its revision under `key`. Writes nothing when it is already stored.
  Status Copy(std::string_view key, const ValueView& value);
  Status Remove(std::string_view key);
  // Removes every key for which `is_gone` returns true. Fails when `is_gone` fails.
  Status RemoveIf(const std::function<Result<bool>(std::string_view key)>& is_gone);
  // Records that the copy is now equal to the other keyspace at `revision`.
  Status SetRevision(Revision revision);

 private:
  friend class LmdbKeyspace;
  KeyspaceWriter(const LmdbEnvironment& environment, MDB_txn* transaction, std::size_t change_log_length)
      : environment_(environment), transaction_(transaction), change_log_length_(change_log_length) {}
  int Load();
  int ApplyOne(Revision revision, const Operation& operation, std::string& record);
  int LogChanges(Revision revision, const std::string& record);
  int PruneLog();
  int StoreRevision(Revision revision);
  Status Fail(std::string message, int code);

  const LmdbEnvironment& environment_;
  MDB_txn* const transaction_;
  const std::size_t change_log_length_;
  Revision revision_ = 0;
  int code_ = 0;  // LMDB's first error in this transaction, or 0
  bool wrote_ = false;
};

// Threads: any, at the same time. Processes: any number on one machine.
class LmdbKeyspace {
 public:
  // Options and errors as in OpenLmdbStore, but the folder must exist.
  static Result<std::unique_ptr<LmdbKeyspace>> Open(const LmdbOptions& options);

  Result<std::unique_ptr<Snapshot>> Read() const;

  bool ThisThreadHoldsSnapshot() const { return environment_->IsHeldByThisThread(); }

  // Applies whole commits in order, all of them or none, durably. Their revisions must increase strictly, starting
  // above the last one. Errors: kInvalid, and those of Update.
  Status Apply(std::span<const RevisionedOperations> commits);

  // Runs `body` in a write transaction and, if it returns success, commits what it wrote, durably. Errors:
  // that of `body`; kNoSpace (the disk or the map is full), kUnavailable, kDenied, kCorrupt, kInternal. After an error
  // nothing has changed.
  Status Update(const std::function<Status(KeyspaceWriter&)>& body);

  // Same as Store::Watch.
  Result<ChangeBatch> Watch(std::string_view prefix, Revision from, std::chrono::milliseconds timeout) const;

  // kInaccessible while the data file is missing or replaced (StoreFileCheck). This is detected within 3 s and ends as
  // soon as the file is back. Otherwise the result of the last accesses: after a failure, the disk is probed with a
  // small commit, at most once a second.
  Health health() const;

 private:
  LmdbKeyspace(std::shared_ptr<LmdbEnvironment> environment, std::size_t change_log_length)
      : environment_(std::move(environment)), change_log_length_(change_log_length) {}
  Status TryUpdate(const std::function<Status(KeyspaceWriter&)>& body);
  Error CommitError(int code) const;
  void RecordCommit();
  void RecordFailure(const Error& error, Health consequence) const;
  void WaitForCommit(std::uint64_t seen, std::uint64_t seen_transaction,
                     std::chrono::steady_clock::time_point deadline) const;

  const std::shared_ptr<LmdbEnvironment> environment_;
  const std::size_t change_log_length_;

  mutable Mutex mutex_;
  mutable ConditionVariable committed_;
  std::uint64_t commits_ VEXA_GUARDED_BY(mutex_) = 0;  // of this process
  mutable std::chrono::steady_clock::time_point next_probe_ VEXA_GUARDED_BY(mutex_);
  mutable std::atomic<Health> health_{Health::kReady};
};

}  // namespace vexa::store
