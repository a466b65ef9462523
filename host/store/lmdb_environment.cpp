#include "host/store/lmdb_environment.h"

#include <fmt/format.h>
#include <sys/stat.h>

#include <cerrno>
#include <thread>
#include <utility>

#include "host/store/data_check.h"
#include "host/store/data_file.h"
#include "host/store/lmdb_error.h"
#include "host/store/lmdb_files.h"
#include "host/store/lost_store.h"
#include "host/store/open_once.h"

namespace vexa::store {
namespace {

using std::chrono::milliseconds;

constexpr unsigned kMaxReaders = 1024;
constexpr std::size_t kMaxIdleReaders = 64;
constexpr milliseconds kReopenTimeout{2000};  // for snapshots that keep the store from being reopened
constexpr milliseconds kReaderSlotRetryInterval{10};
constexpr int kMaxAttempts = 100;

}  // namespace

ReadTransaction::ReadTransaction(LmdbEnvironment* environment, MDB_txn* transaction, MapGate::Pass pass)
    : environment_(environment), transaction_(transaction), pass_(std::move(pass)) {}

ReadTransaction::ReadTransaction(ReadTransaction&& other) noexcept
    : environment_(other.environment_),
      transaction_(std::exchange(other.transaction_, nullptr)),
      pass_(std::move(other.pass_)) {}

ReadTransaction::~ReadTransaction() {
  if (transaction_ == nullptr) return;
  environment_->ReturnReader(transaction_);
  pass_.Leave();
}

WriteTransaction::WriteTransaction(MDB_txn* transaction, MapGate::Pass pass)
    : transaction_(transaction), pass_(std::move(pass)) {}

WriteTransaction::WriteTransaction(WriteTransaction&& other) noexcept
    : transaction_(std::exchange(other.transaction_, nullptr)), pass_(std::move(other.pass_)) {}

WriteTransaction::~WriteTransaction() { Abort(); }

int WriteTransaction::Commit() {
  const int code = mdb_txn_commit(std::exchange(transaction_, nullptr));
  pass_.Leave();
  return code;
}

void WriteTransaction::Abort() {
  if (transaction_ != nullptr) mdb_txn_abort(std::exchange(transaction_, nullptr));
  pass_.Leave();
}

LmdbEnvironment::LmdbEnvironment(const LmdbOptions& options)
    : directory_(options.directory), map_bytes_(options.map_bytes) {}

LmdbEnvironment::~LmdbEnvironment() { CloseFiles(); }

Result<std::shared_ptr<LmdbEnvironment>> LmdbEnvironment::Open(const LmdbOptions& options) {
  const Result<FolderId> folder = IdOfFolder(options.directory);
  if (!folder.ok()) return folder.error();
  return OpenOnce<LmdbEnvironment>(*folder, [&]() -> Result<std::unique_ptr<LmdbEnvironment>> {
    std::unique_ptr<LmdbEnvironment> environment(new LmdbEnvironment(options));
    if (Status opened = environment->OpenFiles(); !opened.ok()) return opened.error();
    environment->file_check_ =
        std::make_unique<StoreFileCheck>(options.directory + "/data.mdb", *environment->checked_file_,
                                         std::function<Status()>(), options.file_check_mode);
    return environment;
  });
}

Status LmdbEnvironment::OpenFiles() {
  Status opened = OpenLockedFolder();
  if (opened.ok()) opened = CheckPagesOfNewFile();
  if (opened.ok()) {
    const Result<LmdbDatabases> databases = OpenDatabases(environment_, directory_);
    if (databases.ok()) databases_ = *databases;
    if (!databases.ok()) opened = databases.error();
  }
  if (!opened.ok()) CloseFiles();
  return opened;
}

Status LmdbEnvironment::OpenLockedFolder() {
  const FolderLock lock(directory_);
  if (Status locked = lock.Outcome(); !locked.ok()) return locked;
  if (Status sound = CheckStoreFiles(directory_); !sound.ok()) return sound;
  if (!HasStore(directory_)) {
    if (Status created = CreateDataFile(directory_ + "/data.mdb", map_bytes_); !created.ok()) return created;
  }
  Status opened = OpenEnvironment();
  // LMDB syncs what it writes, but not the name of a new file.
  const int synced = opened.ok() ? lock.SyncDirectories() : 0;
  if (synced != 0) opened = LmdbError(fmt::format("Cannot sync the folder '{}'", directory_), synced);
  return opened;
}

Status LmdbEnvironment::OpenEnvironment() {
  Result<LockFile> lock_file = LockFile::Open(directory_);
  if (!lock_file.ok()) return lock_file.error();
  lock_file_ = std::move(*lock_file);
  int code = mdb_env_create(&environment_);
  if (code != 0) return LmdbError(fmt::format("Cannot prepare the store in '{}'", directory_), code);
  code = mdb_env_set_maxdbs(environment_, 3);
  if (code == 0) code = mdb_env_set_maxreaders(environment_, kMaxReaders);
  if (code == 0) code = mdb_env_set_mapsize(environment_, map_bytes_);
  // Without MDB_WRITEMAP, pages are written by system calls: a full disk is then an error instead of a signal.
  if (code == 0) code = mdb_env_open(environment_, directory_.c_str(), MDB_NOTLS, S_IRUSR | S_IWUSR);
  if (code == ENOMEM) {
    return Error(
        ErrorCode::kNoSpace, fmt::format("Cannot map the store in '{}'", directory_),
        fmt::format("It takes {} bytes of address space. Raise their limit (ulimit -v, LimitAS=)", map_bytes_));
  }
  if (code != 0) return LmdbError(fmt::format("Cannot open the store in '{}'", directory_), code);
  if (Status reserved = lock_file_.Reserve(); !reserved.ok()) return reserved;
  RestrictStoreFileModes(directory_);
  int dead_readers = 0;
  mdb_reader_check(environment_, &dead_readers);
  return {};
}

// Reads the whole file, so it is done once, without the folder's lock: other processes need not wait. The pages that it
// reads are kept by a reader slot meanwhile.
Status LmdbEnvironment::CheckPagesOfNewFile() {
  int fd = -1;
  struct stat info {};
  if (mdb_env_get_fd(environment_, &fd) != 0 || ::fstat(fd, &info) != 0) {
    return LmdbError(fmt::format("Cannot examine the store in '{}'", directory_), errno);
  }
  const FolderId opened(info.st_dev, info.st_ino);
  if (checked_file_ == opened) return {};
  if (Status intact = CheckDataPages(environment_, directory_ + "/data.mdb"); !intact.ok()) return intact;
  checked_file_ = opened;
  return {};
}

void LmdbEnvironment::CloseFiles() {
  DropIdleReaders();
  if (environment_ != nullptr) mdb_env_close(std::exchange(environment_, nullptr));
  lock_file_ = LockFile();
}

// Begins a transaction with `begin`, which returns 0 or LMDB's code, and recovers from the failures that can be
// recovered from. On success, `pass` keeps the map in place for as long as the transaction needs it.
Result<MDB_txn*> LmdbEnvironment::Begin(MapGate::Pass& pass, const std::function<int(MDB_txn*&)>& begin) {
  for (int attempt = 0;; ++attempt) {
    if (Status unchanged = CheckFileUnchanged(); !unchanged.ok()) return unchanged.error();
    pass = gate_.Enter();
    MDB_txn* transaction = nullptr;
    const int code = environment_ == nullptr ? MDB_PANIC : begin(transaction);
    if (code == 0) return transaction;
    pass.Leave();
    if (Status recovered = Recover(code, attempt); !recovered.ok()) return recovered.error();
  }
}

Result<ReadTransaction> LmdbEnvironment::BeginRead() {
  MapGate::Pass pass;
  const Result<MDB_txn*> begun = Begin(pass, [this](MDB_txn*& transaction) { return BeginReader(transaction); });
  if (!begun.ok()) return begun.error();
  return ReadTransaction(this, *begun, std::move(pass));
}

// An idle reader when there is one, otherwise a new one. 0, or LMDB's code.
int LmdbEnvironment::BeginReader(MDB_txn*& transaction) {
  {
    const MutexLock lock(idle_mutex_);
    if (!idle_readers_.empty()) {
      transaction = idle_readers_.back();
      idle_readers_.pop_back();
    }
  }
  if (transaction == nullptr) return mdb_txn_begin(environment_, nullptr, MDB_RDONLY, &transaction);
  const int code = mdb_txn_renew(transaction);
  if (code != 0) mdb_txn_abort(transaction);
  return code;
}

Result<WriteTransaction> LmdbEnvironment::BeginWrite() {
  MapGate::Pass pass;
  const Result<MDB_txn*> begun =
      Begin(pass, [this](MDB_txn*& transaction) { return mdb_txn_begin(environment_, nullptr, 0, &transaction); });
  if (!begun.ok()) return begun.error();
  return WriteTransaction(*begun, std::move(pass));
}

// Removes the cause of `code`, so that the transaction can be retried, or returns the error when that is not possible.
Status LmdbEnvironment::Recover(int code, int attempt) {
  if (attempt < kMaxAttempts) {
    // MDB_MAP_RESIZED: a process with a larger map wrote beyond ours. Opening maps at least the whole file.
    if (code == MDB_PANIC || code == MDB_MAP_RESIZED) return Reopen();
    if (code == MDB_READERS_FULL) {
      DropIdleReaders();
      int dead_readers = 0;
      const MapGate::Pass pass = gate_.Enter();
      if (environment_ != nullptr) mdb_reader_check(environment_, &dead_readers);
      if (dead_readers == 0) std::this_thread::sleep_for(kReaderSlotRetryInterval);
      return {};
    }
  }
  return LmdbError(fmt::format("Cannot begin a transaction in '{}'", directory_), code);
}

// After a failed write of its header, LMDB refuses everything until the environment is reopened.
Status LmdbEnvironment::Reopen() {
  if (!gate_.Close(kReopenTimeout)) {
    return Error(ErrorCode::kUnavailable, "The store must be reopened, but open snapshots still use it");
  }
  MDB_txn* probe = nullptr;
  const bool works = environment_ != nullptr && mdb_txn_begin(environment_, nullptr, MDB_RDONLY, &probe) == 0;
  if (works) mdb_txn_abort(probe);
  Status opened;
  if (!works) {
    CloseFiles();
    opened = OpenFiles();
  }
  gate_.Reopen();
  if (opened.ok()) return {};
  return Error(ErrorCode::kUnavailable, "Cannot reopen the store", opened.error().ToString());
}

void LmdbEnvironment::CheckReaders() {
  const MapGate::Pass pass = gate_.Enter();
  int dead_readers = 0;
  if (environment_ != nullptr) mdb_reader_check(environment_, &dead_readers);
}

std::optional<pid_t> LmdbEnvironment::FindWriter() {
  const std::optional<MapGate::Pass> pass = gate_.TryEnter();
  return pass ? lock_file_.FindWriter() : std::nullopt;
}

std::uint64_t LmdbEnvironment::LastTransactionNumber() {
  const MapGate::Pass pass = gate_.Enter();
  MDB_envinfo info{};
  if (environment_ == nullptr || mdb_env_info(environment_, &info) != 0) return 0;
  return info.me_last_txnid;
}

void LmdbEnvironment::ReturnReader(MDB_txn* transaction) {
  mdb_txn_reset(transaction);
  {
    const MutexLock lock(idle_mutex_);
    if (idle_readers_.size() < kMaxIdleReaders) {
      idle_readers_.push_back(transaction);
      return;
    }
  }
  mdb_txn_abort(transaction);
}

void LmdbEnvironment::DropIdleReaders() {
  const MutexLock lock(idle_mutex_);
  for (MDB_txn* const transaction : idle_readers_) mdb_txn_abort(transaction);
  idle_readers_.clear();
}

}  // namespace vexa::store
