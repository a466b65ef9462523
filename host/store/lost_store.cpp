#include "host/store/lost_store.h"

#include <fmt/format.h>
#include <sys/stat.h>

#include <filesystem>
#include <sstream>
#include <string_view>
#include <system_error>

#include "host/base/files.h"
#include "host/store/lmdb_keyspace.h"

namespace vexa::store {
namespace {

bool Exists(const std::string& path) {
  struct stat info {};
  return ::lstat(path.c_str(), &info) == 0;
}

std::string MarkIn(const std::string& data_directory) { return data_directory + "/store-used"; }

constexpr std::size_t kMaxMarkBytes = 64 * 1024;
constexpr std::string_view kData = "data ";
constexpr std::string_view kStore = "store ";

// The folder itself, whatever links lead to it.
std::string Resolved(const std::string& folder) {
  std::error_code failed;
  const std::filesystem::path path = std::filesystem::weakly_canonical(folder, failed);
  return failed ? folder : path.lexically_normal().string();
}

std::string MarkText(const std::string& data_directory, const std::string& store_directory) {
  return fmt::format("This host has used a store. Without this file, a missing store is made again.\n{}{}\n{}{}\n",
                     kData, Resolved(data_directory), kStore, Resolved(store_directory));
}

// Returns what follows `name` on the first line that starts with it; empty if no line does.
std::string ValueIn(const std::string& mark, std::string_view name) {
  std::istringstream lines(mark);
  for (std::string line; std::getline(lines, line);) {
    if (line.starts_with(name)) return line.substr(name.size());
  }
  return "";
}

Error LostStore(const std::string& directory) {
  return Error(ErrorCode::kUnavailable,
               fmt::format("The folder '{}' does not contain a database, although this host used one there before. "
                           "Mount it, move it back, or restore a backup. To begin with an empty database, start 'vexad "
                           "--new-store' once",
                           directory));
}

// `used`: the folder of the store, according to the mark.
Error OtherStore(const std::string& directory, const std::string& used) {
  return Error(ErrorCode::kUnavailable,
               fmt::format("The folder '{}' does not contain a database. This host used the one in '{}' before. Use "
                           "that folder (setting 'store'), or move the database here. To begin with an empty database, "
                           "start 'vexad --new-store' once",
                           directory, used));
}

// `marked`: the data folder that the mark is for.
Error MovedDataFolder(const std::string& directory, const std::string& data_directory, const std::string& marked,
                      const std::string& used) {
  return Error(ErrorCode::kUnavailable,
               fmt::format("The folder '{}' does not contain a database. The data folder '{}' was moved or copied from "
                           "'{}', whose database was in '{}'. Move that database here, or name its folder (setting "
                           "'store'). To begin with an empty database, start 'vexad --new-store' once",
                           directory, data_directory, marked, used));
}

}  // namespace

// An empty file is one whose first write never came, or whose contents were lost: it holds no database.
bool HasStore(const std::string& store_directory) {
  struct stat info {};
  return ::lstat((store_directory + "/data.mdb").c_str(), &info) == 0 && info.st_size > 0;
}

Status CheckStoreNotLost(const std::string& data_directory, const std::string& store_directory) {
  if (HasStore(store_directory) || !Exists(MarkIn(data_directory))) return {};
  const Result<std::string> text = ReadFile(MarkIn(data_directory), kMaxMarkBytes);
  if (!text.ok()) return LostStore(store_directory);
  const std::string marked = ValueIn(*text, kData);
  const std::string used = ValueIn(*text, kStore);
  if (marked.empty() || used.empty()) return LostStore(store_directory);
  if (marked != Resolved(data_directory)) return MovedDataFolder(store_directory, data_directory, marked, used);
  return used == Resolved(store_directory) ? LostStore(store_directory) : OtherStore(store_directory, used);
}

Status MarkStoreUsed(const std::string& data_directory, const std::string& store_directory) {
  const std::string path = MarkIn(data_directory);
  const std::string text = MarkText(data_directory, store_directory);
  if (const Result<std::string> present = ReadFile(path, kMaxMarkBytes); present.ok() && *present == text) return {};
  return WriteFileAtomically(path, text, S_IRUSR | S_IWUSR);
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
