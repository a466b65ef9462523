#include "host/store/lost_store.h"

#include <fmt/format.h>
#include <sys/stat.h>

#include "host/base/files.h"
#include "host/store/lmdb_keyspace.h"

namespace vexa::store {
namespace {

bool Exists(const std::string& path) {
  struct stat info {};
  return ::lstat(path.c_str(), &info) == 0;
}

std::string MarkIn(const std::string& data_directory) { return data_directory + "/store-used"; }

Error LostStore(const std::string& directory) {
  return Error(ErrorCode::kUnavailable,
               fmt::format("The folder '{}' does not contain a database, although this host used one there before. "
                           "Mount it, move it back, or restore a backup. To begin with an empty database, start 'vexad "
                           "--new-store' once",
                           directory));
}

}  // namespace

// An empty file is one whose first write never came, or whose contents were lost: it holds no database.
bool HasStore(const std::string& store_directory) {
  struct stat info {};
  return ::lstat((store_directory + "/data.mdb").c_str(), &info) == 0 && info.st_size > 0;
}

Status CheckStoreNotLost(const std::string& data_directory, const std::string& store_directory) {
  if (HasStore(store_directory) || !Exists(MarkIn(data_directory))) return {};
  return LostStore(store_directory);
}

Status MarkStoreUsed(const std::string& data_directory) {
  const std::string path = MarkIn(data_directory);
  if (Exists(path)) return {};
  return WriteFileAtomically(path, "This host has used a store. Without this file, a missing store is made again.\n",
                             S_IRUSR | S_IWUSR);
}

Status CheckPrimaryExists(const std::string& primary_directory, const std::string& mirror_directory) {
  if (HasStore(primary_directory) || !HasStore(mirror_directory)) return {};
  return LostStore(primary_directory);
}

Status CheckPrimaryIsNotOlder(const Store& primary, const std::string& mirror_directory) {
  if (!HasStore(mirror_directory)) return {};
  LmdbOptions options;
  options.directory = mirror_directory;
  const auto copy = LmdbKeyspace::Open(options);
  if (!copy.ok()) return {};
  const auto copied = (*copy)->Read();
  const auto now = primary.Read();
  if (!copied.ok() || !now.ok() || (*now)->revision() >= (*copied)->revision()) return {};
  return Error(ErrorCode::kConflict,
               fmt::format("The cluster database is older than this host's copy of it. Mount the right folder. If the "
                           "database was put back from a backup, or is meant to be empty, remove the folder '{}'",
                           mirror_directory));
}

}  // namespace vexa::store
