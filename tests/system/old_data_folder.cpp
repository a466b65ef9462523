#include "tests/system/old_data_folder.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <lmdb.h>
#include <sys/stat.h>
#include <sys/vfs.h>

#include <chrono>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>
#include <string_view>
#include <utility>
#include <vector>

#include "tests/support/check.h"

namespace vexa::test {
namespace {

namespace fs = std::filesystem;

using Entries = std::vector<std::pair<std::string, std::string>>;

std::string ReadText(const std::string& path) {
  std::ifstream file(path);
  Check(file.good(), path.c_str());
  std::ostringstream text;
  text << file.rdbuf();
  return text.str();
}

// How a host of 0.1.0 recognized a folder again.
std::string IdentityOf(const std::string& folder) {
  struct statx info {};
  Check(::statx(AT_FDCWD, folder.c_str(), 0, STATX_INO | STATX_BTIME, &info) == 0, folder.c_str());
  struct statfs file_system {};
  Check(::statfs(folder.c_str(), &file_system) == 0, folder.c_str());
  std::uint64_t file_system_id = 0;
  static_assert(sizeof file_system.f_fsid == sizeof file_system_id);
  std::memcpy(&file_system_id, &file_system.f_fsid, sizeof file_system_id);
  std::string identity = fmt::format("ino={} fsid={:x}", info.stx_ino, file_system_id);
  const auto& born = info.stx_btime;
  const bool has_birth = (info.stx_mask & STATX_BTIME) != 0 && (born.tv_sec != 0 || born.tv_nsec != 0);
  if (has_birth) identity += fmt::format(" born={}.{:09}", born.tv_sec, born.tv_nsec);
  return identity;
}

// Puts in what differs at each place: @DATA@ is the path of the folder, @IDENTITY:name@ the identity of one below it.
std::string Localized(std::string text, const std::string& folder) {
  constexpr std::string_view kData = "@DATA@";
  constexpr std::string_view kIdentity = "@IDENTITY:";
  for (std::size_t at; (at = text.find(kData)) != std::string::npos;) text.replace(at, kData.size(), folder);
  for (std::size_t at; (at = text.find(kIdentity)) != std::string::npos;) {
    const std::size_t name = at + kIdentity.size();
    const std::size_t end = text.find('@', name);
    text.replace(at, end + 1 - at, IdentityOf(folder + "/" + text.substr(name, end - name)));
  }
  return text;
}

// Of a line of mdb_dump(1) with printable characters: '\' and two hexadecimal digits are a byte, "\\" is '\'.
std::string Bytes(const std::string& line) {
  std::string bytes;
  for (std::size_t i = 1; i < line.size(); ++i) {
    if (line[i] != '\\') {
      bytes += line[i];
    } else if (line[i + 1] == '\\') {
      bytes += line[++i];
    } else {
      bytes += static_cast<char>(std::stoi(line.substr(i + 1, 2), nullptr, 16));
      i += 2;
    }
  }
  return bytes;
}

// The databases of a text as `mdb_dump -a -p` prints it.
std::map<std::string, Entries> ParseDump(const std::string& text) {
  constexpr std::string_view kName = "database=";
  std::map<std::string, Entries> databases;
  std::istringstream lines(text);
  Entries* entries = nullptr;
  std::string line;
  while (std::getline(lines, line)) {
    if (line.starts_with(kName)) entries = &databases[line.substr(kName.size())];
    if (!line.starts_with(' ')) continue;
    std::string value;
    Check(entries != nullptr && std::getline(lines, value) && value.starts_with(' '), "a value in store.dump");
    entries->emplace_back(Bytes(line), Bytes(value));
  }
  return databases;
}

// Entries of the cluster log are removed when they are a year old, so they are moved: the newest is an hour old.
void ShiftLogToNow(Entries& data) {
  constexpr std::string_view kLog = "/log/";
  constexpr std::size_t kDigits = 20;
  std::int64_t newest = 0;
  for (const auto& [key, value] : data) {
    if (key.starts_with(kLog)) newest = std::stoll(key.substr(kLog.size()));
  }
  const auto hour_ago = std::chrono::system_clock::now() - std::chrono::hours(1);
  const std::int64_t shift =
      std::chrono::duration_cast<std::chrono::microseconds>(hour_ago.time_since_epoch()).count() - newest;
  for (auto& [key, value] : data) {
    if (!key.starts_with(kLog)) continue;
    const std::int64_t before = std::stoll(key.substr(kLog.size()));
    const std::string after = std::to_string(before + shift);
    key = std::string(kLog) + std::string(kDigits - after.size(), '0') + after;
    const std::string time = std::to_string(before);
    const std::size_t at = value.find(time);
    Check(at != std::string::npos, "the time of an entry of the cluster log");
    value.replace(at, time.size(), after);
  }
}

void MakeStore(const std::string& folder, const std::map<std::string, Entries>& databases) {
  fs::create_directory(folder);
  fs::permissions(folder, fs::perms::owner_all);
  MDB_env* environment = nullptr;
  MDB_txn* transaction = nullptr;
  Check(mdb_env_create(&environment) == 0, "mdb_env_create");
  Check(mdb_env_set_maxdbs(environment, static_cast<MDB_dbi>(databases.size())) == 0, "mdb_env_set_maxdbs");
  Check(mdb_env_set_mapsize(environment, std::size_t{64} << 20) == 0, "mdb_env_set_mapsize");
  Check(mdb_env_open(environment, folder.c_str(), 0, 0600) == 0, "mdb_env_open");
  Check(mdb_txn_begin(environment, nullptr, 0, &transaction) == 0, "mdb_txn_begin");
  for (const auto& [name, entries] : databases) {
    MDB_dbi database = 0;
    Check(mdb_dbi_open(transaction, name.c_str(), MDB_CREATE, &database) == 0, "mdb_dbi_open");
    for (const auto& [key, value] : entries) {
      MDB_val key_bytes{key.size(), const_cast<char*>(key.data())};
      MDB_val value_bytes{value.size(), const_cast<char*>(value.data())};
      Check(mdb_put(transaction, database, &key_bytes, &value_bytes, 0) == 0, "mdb_put");
    }
  }
  Check(mdb_txn_commit(transaction) == 0, "mdb_txn_commit");
  mdb_env_close(environment);
}

// Each line: path, length in bytes, and the text that the file begins with.
void MakeFiles(const std::string& folder, const std::string& list) {
  std::istringstream lines(list);
  std::string path, text;
  for (std::uintmax_t length = 0; lines >> path >> length && std::getline(lines >> std::ws, text);) {
    path.insert(0, folder + "/");
    fs::create_directories(fs::path(path).parent_path());
    std::ofstream(path) << (length == 0 ? "" : text);
    fs::resize_file(path, length);
    fs::permissions(path, fs::perms::owner_read | fs::perms::owner_write);
  }
}

}  // namespace

void MakeOldDataFolder(const std::string& version, const std::string& folder) {
  const std::string texts = std::string(VEXA_TEST_DATA) + "/" + version + "/";
  fs::create_directory(folder);
  fs::permissions(folder, fs::perms::owner_all);
  MakeFiles(folder, ReadText(texts + "files.txt"));
  for (const char* name : {"host-id", "accounts.json", "sessions.json"}) {
    std::ofstream(folder + "/" + name) << ReadText(texts + name);
    fs::permissions(folder + "/" + name, fs::perms::owner_read | fs::perms::owner_write);
  }
  auto databases = ParseDump(Localized(ReadText(texts + "store.dump"), folder));
  ShiftLogToNow(databases["data"]);
  MakeStore(folder + "/store", databases);
}

}  // namespace vexa::test
