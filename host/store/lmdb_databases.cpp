#include "host/store/lmdb_databases.h"

#include <fmt/format.h>

#include "host/store/lmdb_error.h"
#include "host/store/lmdb_files.h"
#include "host/store/lmdb_format.h"

namespace vexa::store {
namespace {

// Of the databases that the transaction sees; the version of their format goes into `format`. 0, or LMDB's code.
int OpenIn(MDB_txn* transaction, bool may_create, LmdbDatabases& databases, std::uint64_t& format) {
  MDB_dbi main = 0;
  MDB_stat content{};
  int code = mdb_dbi_open(transaction, nullptr, 0, &main);
  if (code == 0) code = mdb_stat(transaction, main, &content);
  // Databases are added to an empty file only: a file that contains other databases is not ours.
  const unsigned create = may_create && content.ms_entries == 0 ? static_cast<unsigned>(MDB_CREATE) : 0U;
  if (code == 0) code = mdb_dbi_open(transaction, kDataName, create, &databases.data);
  if (code == 0) code = mdb_dbi_open(transaction, kChangesName, create, &databases.changes);
  if (code == 0) code = mdb_dbi_open(transaction, kMetaName, create, &databases.meta);
  if (code == 0 && create != 0) code = PutNumber(transaction, databases.meta, kFormatName, kFormatVersion);
  if (code == 0) code = GetNumber(transaction, databases.meta, kFormatName, format);
  return code;
}

// Only a write transaction creates the databases.
int Open(MDB_env* environment, unsigned transaction_flags, LmdbDatabases& databases, std::uint64_t& format) {
  MDB_txn* transaction = nullptr;
  int code = mdb_txn_begin(environment, nullptr, transaction_flags, &transaction);
  if (code != 0) return code;
  code = OpenIn(transaction, transaction_flags == 0, databases, format);
  if (code == 0) return mdb_txn_commit(transaction);
  mdb_txn_abort(transaction);
  return code;
}

}  // namespace

Result<LmdbDatabases> OpenDatabases(MDB_env* environment, const std::string& directory) {
  LmdbDatabases databases;
  std::uint64_t format = 0;
  int code = Open(environment, MDB_RDONLY, databases, format);
  if (code == MDB_NOTFOUND) {
    // A process that was stopped while it creates them must not stop this one.
    const FolderLock lock(directory);
    if (Status locked = lock.Outcome(); !locked.ok()) return locked.error();
    code = Open(environment, 0, databases, format);
  }
  if (code == MDB_NOTFOUND) code = MDB_INVALID;
  if (code != 0) {
    return LmdbError(fmt::format("'{}' does not contain a store that this version can use", directory), code);
  }
  if (format == kFormatVersion) return databases;
  return Error(ErrorCode::kCorrupt,
               fmt::format("The store in '{}' has format {}. This version can read format {}. Use the version that "
                           "wrote it, or restore a backup of that format",
                           directory, format, kFormatVersion));
}

}  // namespace vexa::store
