#include "host/store/store_mark.h"

#include <fmt/format.h>
#include <sys/stat.h>

#include "host/base/files.h"

namespace vexa::store {
namespace {

bool Exists(const std::string& path) {
  struct stat info {};
  return ::lstat(path.c_str(), &info) == 0;
}

std::string MarkIn(const std::string& data_directory) { return data_directory + "/store-used"; }

}  // namespace

bool HasStore(const std::string& store_directory) { return Exists(store_directory + "/data.mdb"); }

Status CheckStoreNotLost(const std::string& data_directory, const std::string& store_directory) {
  if (HasStore(store_directory) || !Exists(MarkIn(data_directory))) return {};
  return Error(ErrorCode::kUnavailable,
               fmt::format("The folder '{}' does not contain a database, although this host has used one. Mount the "
                           "folder, or restore a backup. To begin with an empty database, start 'vexad --new-store' "
                           "once",
                           store_directory));
}

Status MarkStoreUsed(const std::string& data_directory) {
  const std::string path = MarkIn(data_directory);
  if (Exists(path)) return {};
  return WriteFileAtomically(path, "This host has used a store. Without this file, a missing store is made again.\n",
                             S_IRUSR | S_IWUSR);
}

}  // namespace vexa::store
