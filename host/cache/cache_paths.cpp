#include "host/cache/cache_paths.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <system_error>

#include "host/base/files.h"
#include "host/base/write_all.h"

namespace vexa::cache {
namespace {

namespace fs = std::filesystem;

constexpr std::size_t kMaxNameBytes = 64;
constexpr mode_t kFolderMode = 0700;

// Without isalnum(3): the locale must not decide which paths are valid.
bool IsPlainName(std::string_view name) {
  const auto is_plain = [](char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_' || c == '-';
  };
  return !name.empty() && name.size() <= kMaxNameBytes && std::all_of(name.begin(), name.end(), is_plain);
}

void RemoveLeftovers(const CachePaths& paths) {
  // Names contain no dots, so files with this prefix belong to no other cache.
  const std::string prefix = fs::path(paths.record).filename().string() + ".";
  std::error_code error;
  for (fs::directory_iterator entry(paths.folder, error), end; !error && entry != end; entry.increment(error)) {
    if (entry->path().filename().string().starts_with(prefix)) ::unlink(entry->path().c_str());
  }
}

}  // namespace

std::optional<CachePaths> PathsOfCache(const std::string& directory, std::string_view group, std::string_view name) {
  if (directory.empty() || !IsPlainName(group) || !IsPlainName(name)) return std::nullopt;
  std::string folder = directory + "/" + std::string(group);
  const std::string prefix = folder + "/" + std::string(name);
  return CachePaths{std::move(folder), prefix + ".json", prefix + ".lock"};
}

Status ReplaceCacheFile(const CachePaths& paths, std::string_view text) {
  if (Status made = CreateDirectories(paths.folder, kFolderMode); !made) return made;
  RemoveLeftovers(paths);
  std::string temporary = paths.record + ".XXXXXX";
  const int fd = ::mkostemp(temporary.data(), O_CLOEXEC);  // 0600
  if (fd < 0)
    return SystemError(ErrorCode::kInternal, fmt::format("Cannot create a file beside '{}'", paths.record), errno);
  bool done = WriteAll(fd, text);
  int error_number = errno;
  if (::close(fd) != 0 && done) {
    done = false;
    error_number = errno;
  }
  if (done && ::rename(temporary.c_str(), paths.record.c_str()) != 0) {
    done = false;
    error_number = errno;
  }
  if (done) return {};
  ::unlink(temporary.c_str());
  return SystemError(error_number == ENOSPC || error_number == EDQUOT ? ErrorCode::kNoSpace : ErrorCode::kInternal,
                     fmt::format("Cannot write '{}'", paths.record), error_number);
}

}  // namespace vexa::cache
