// The keyspace in LMDB, independent of who chooses the revisions: the embedded store counts its own; a mirror of a
// cluster database applies the given ones.
#pragma once

#include <atomic>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <span>
#include <string>

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
  // commit counts. Errors: kInvalid (`revision` is not greater than the last one, or a key or text has an impossible
  // size; the transaction must then be abandoned), and what LMDB reports.
  Status Apply(Revision revision, std::span<const Operation> operations);

  // For a copy of another keyspace. The copy has the other's revisions and no change log, so it cannot be watched.
  // Errors: what LMDB reports; the transaction must then be abandoned.

  // Makes `key` the copy of `value`. Writes nothing when it already is.
  Status Copy(std::string_view key, const ValueView& value);
  Status Remove(std::string_view key);
  // Removes every key for which `is_gone` returns true. Fails when `is_gone` fails.
  Status RemoveIf(const std::function<Result<bool>(std::string_view key)>& is_gone);
  // Declares that the copy now holds the other keyspace's state at `revision`.
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
  int code_ = 0;  // the first failure of LMDB
  bool wrote_ = false;
};

// Threads: any, at the same time. Processes: any number on one machine.
class LmdbKeyspace {
 public:
  // Options and errors as in OpenLmdbStore, but the folder must exist.
  static Result<std::unique_ptr<LmdbKeyspace>> Open(const LmdbOptions& options);

  Result<std::unique_ptr<Snapshot>> Read() const;

  bool ThisThreadHoldsSnapshot() const { return environment_->ThisThreadIsInside(); }

  // Applies whole commits in order, all of them or none, durably. Their revisions must increase strictly, starting
  // above the last one. Errors: kInvalid, and those of Update.
  Status Apply(std::span<const RevisionedOperations> commits);

  // Runs `body` in a write transaction and, if it returns success, commits what it wrote, durably. Errors:
  // that of `body`; kNoSpace (the disk or the map is full), kUnavailable, kDenied, kCorrupt, kInternal. After an error
  // nothing has changed.
  Status Update(const std::function<Status(KeyspaceWriter&)>& body);

  // Same as Store::Watch.
  Result<ChangeBatch> Watch(std::string_view prefix, Revision from, std::chrono::milliseconds timeout) const;

  // kInaccessible while the data file is not in its place (StorePlace). That is noticed within 3 s and ends as soon as
  // the file is back. Otherwise the result of the last accesses: after a failure, the disk is probed with a small
  // commit, at most once a second.
  Health health() const;

 private:
  LmdbKeyspace(std::shared_ptr<LmdbEnvironment> environment, std::size_t change_log_length)
      : environment_(std::move(environment)), change_log_length_(change_log_length) {}
  Status TryUpdate(const std::function<Status(KeyspaceWriter&)>& body);
  Error CommitFailed(int code) const;
  void NoteCommit();
  void NoteFailure(const Error& error, Health consequence) const;
  void WaitForCommit(std::uint64_t seen, std::uint64_t seen_transaction,
                     std::chrono::steady_clock::time_point deadline) const;

  const std::shared_ptr<LmdbEnvironment> environment_;
  const std::size_t change_log_length_;

  mutable std::mutex mutex_;
  mutable std::condition_variable committed_;
  std::uint64_t commits_ = 0;                                 // of this process, under mutex_
  mutable std::chrono::steady_clock::time_point next_probe_;  // under mutex_
  mutable std::atomic<Health> health_{Health::kReady};
};

}  // namespace vexa::store
