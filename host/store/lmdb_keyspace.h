// The keyspace in LMDB. Its callers choose the revisions: the embedded store counts its own; a mirror of a cluster
// database copies those of the database.
#pragma once

#include <functional>
#include <memory>
#include <span>
#include <string>

#include "host/store/commit_thread.h"
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
  friend class CommitThread;
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

  // Applies whole commits in order, all of them or none, durably. Their revisions must increase strictly, starting
  // above the last one. Errors: kInvalid, and those of Update.
  Status Apply(std::span<const RevisionedOperations> commits);

  // Runs `body` in a write transaction on the store's own thread and, if it returns success, commits what it wrote,
  // durably. Several share a transaction (commit_thread.h); `bytes` is about how much `body` writes. Errors: that of
  // `body`; kNoSpace (the disk or the map is full), kUnavailable, kDenied, kCorrupt, kInternal. After an error nothing
  // has changed.
  Status Update(const std::function<Status(KeyspaceWriter&)>& body, std::size_t bytes = 0);

  // Same as Store::Watch.
  Result<ChangeBatch> Watch(std::string_view prefix, Revision from, std::chrono::milliseconds timeout) const;

  // kInaccessible while the data file is missing or replaced (StoreFileCheck). This is detected within 3 s and ends as
  // soon as the file is back. Otherwise that of CommitThread.
  Health health() const;

  void LimitLockWaits(std::chrono::milliseconds longest) { commits_.LimitLockWaits(longest); }

 private:
  LmdbKeyspace(std::shared_ptr<LmdbEnvironment> environment, const LmdbOptions& options);
  void WaitForCommit(std::uint64_t seen, std::uint64_t seen_transaction,
                     std::chrono::steady_clock::time_point deadline) const;

  const std::shared_ptr<LmdbEnvironment> environment_;
  CommitThread commits_;
};

}  // namespace vexa::store
