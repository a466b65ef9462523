// One open LMDB environment: its databases, its transactions, and its reopening after a failed write.
#pragma once

#include <lmdb.h>
#include <sys/types.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "host/base/mutex.h"
#include "host/base/result.h"
#include "host/store/lmdb_databases.h"
#include "host/store/lock_file.h"
#include "host/store/map_gate.h"
#include "host/store/store_file_check.h"

namespace vexa::store {

class LmdbEnvironment;

// A read transaction: one consistent state of all databases. Movable; returns its reader slot when destroyed.
class ReadTransaction {
 public:
  ReadTransaction(ReadTransaction&& other) noexcept;
  ReadTransaction& operator=(ReadTransaction&&) = delete;
  ~ReadTransaction();
  MDB_txn* get() const { return transaction_; }

 private:
  friend class LmdbEnvironment;
  ReadTransaction(LmdbEnvironment* environment, MDB_txn* transaction, MapGate::Pass pass);
  LmdbEnvironment* environment_;
  MDB_txn* transaction_;
  MapGate::Pass pass_;
};

// The write transaction; aborted unless committed. Must end on the thread that began it.
class WriteTransaction {
 public:
  WriteTransaction(WriteTransaction&& other) noexcept;
  WriteTransaction& operator=(WriteTransaction&&) = delete;
  ~WriteTransaction();
  MDB_txn* get() const { return transaction_; }
  // 0, or LMDB's code. Ends the transaction in either case.
  int Commit();
  // Ends the transaction without any effect.
  void Abort();

 private:
  friend class LmdbEnvironment;
  WriteTransaction(MDB_txn* transaction, MapGate::Pass pass);
  MDB_txn* transaction_;
  MapGate::Pass pass_;
};

// A forked child must not use it: LMDB's documentation (lmdb.h, "Caveats") allows an environment only in the process
// that opened it.
// Threads: any, at the same time.
class LmdbEnvironment {
 public:
  // The folder must exist. One environment per folder and process, because two would break each other's locks: opening
  // a folder that is already open returns the same environment.
  static Result<std::shared_ptr<LmdbEnvironment>> Open(const LmdbOptions& options);
  ~LmdbEnvironment();
  LmdbEnvironment(const LmdbEnvironment&) = delete;
  LmdbEnvironment& operator=(const LmdbEnvironment&) = delete;

  MDB_dbi data() const { return databases_.data; }
  MDB_dbi changes() const { return databases_.changes; }
  MDB_dbi meta() const { return databases_.meta; }
  const std::string& directory() const { return directory_; }

  // kUnavailable when the data file is no longer the one that was opened, or cannot be read; see StoreFileCheck.
  Status CheckFileUnchanged() const { return file_check_->Check(); }

  // Errors: kBusy (no reader slot), kUnavailable (CheckFileUnchanged() failed, or the folder
  // cannot be reopened, maybe because a snapshot of this process stays open), and those of LmdbError.
  Result<ReadTransaction> BeginRead();
  // Waits for the writers of all processes. Errors: those of BeginRead.
  Result<WriteTransaction> BeginWrite();

  // Frees the slots of readers whose process has died; until then they keep pages from being used again.
  void CheckReaders();

  // The process in which a write transaction is open, if it can be found out. Never waits.
  std::optional<pid_t> FindWriter();

  // A number that changes with every commit of any process; 0 when it is unknown.
  std::uint64_t LastTransactionNumber();

 private:
  friend class ReadTransaction;

  explicit LmdbEnvironment(const LmdbOptions& options);
  Status OpenFiles();
  Status OpenLockedFolder();
  Status OpenEnvironment();
  Status CheckPagesOfNewFile();
  void CloseFiles();
  Result<MDB_txn*> Begin(MapGate::Pass& pass, const std::function<int(MDB_txn*&)>& begin);
  int BeginReader(MDB_txn*& transaction);
  Status Recover(int code, int attempt);
  Status Reopen();
  void ReturnReader(MDB_txn* transaction);
  void DropIdleReaders();

  const std::string directory_;
  const std::size_t map_bytes_;
  std::unique_ptr<const StoreFileCheck> file_check_;  // does not change once the environment has been returned
  MapGate gate_;
  MDB_env* environment_ = nullptr;  // changed only while the gate is closed; null when reopening failed
  // These change with it.
  LockFile lock_file_;
  LmdbDatabases databases_;
  std::optional<FolderId> checked_file_;  // whose pages have been checked
  Mutex idle_mutex_;
  std::vector<MDB_txn*> idle_readers_ VEXA_GUARDED_BY(idle_mutex_);  // reset: they keep a reader slot, but no pages
};

}  // namespace vexa::store
