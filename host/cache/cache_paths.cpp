#include "host/cache/cache_paths.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <system_error>

#include "host/base/files.h"

namespace vexa::cluster {
namespace {

namespace fs = std::filesystem;

constexpr std::size_t kMaxWordBytes = 64;
constexpr mode_t kFolderMode = 0700;

// Written out instead of isalnum(3): the locale must not decide which paths are valid.
bool IsPlainWord(std::string_view word) {
  const auto is_plain = [](char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_' || c == '-';
  };
  return !word.empty() && word.size() <= kMaxWordBytes && std::all_of(word.begin(), word.end(), is_plain);
}

void RemoveLeftovers(const CachePaths& paths) {
  // Names contain no dots, so no other cache's files begin like this.
  const std::string beginning = fs::path(paths.record).filename().string() + ".";
  std::error_code error;
  for (fs::directory_iterator entry(paths.folder, error), end; !error && entry != end; entry.increment(error)) {
    if (entry->path().filename().string().starts_with(beginning)) ::unlink(entry->path().c_str());
  }
}

bool WriteAll(int fd, std::string_view text) {
  while (!text.empty()) {
    const ssize_t written = ::write(fd, text.data(), text.size());
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) {
      if (written == 0) errno = EIO;
      return false;
    }
    text.remove_prefix(static_cast<std::size_t>(written));
  }
  return true;
}

}  // namespace

std::optional<CachePaths> PathsOfCache(const std::string& directory, std::string_view group, std::string_view name) {
  if (directory.empty() || !IsPlainWord(group) || !IsPlainWord(name)) return std::nullopt;
  std::string folder = directory + "/" + std::string(group);
  const std::string beginning = folder + "/" + std::string(name);
  return CachePaths{std::move(folder), beginning + ".json", beginning + ".lock"};
}

Status ReplaceCacheFile(const CachePaths& paths, std::string_view text) {
  if (Status made = CreateDirectories(paths.folder, kFolderMode); !made) return made;
  RemoveLeftovers(paths);
  std::string temporary = paths.record + ".XXXXXX";
  const int fd = ::mkostemp(temporary.data(), O_CLOEXEC);  // 0600
  if (fd < 0) return SystemError(ErrorCode::kInternal, "Cannot create a file beside '" + paths.record + "'", errno);
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
                     "Cannot write '" + paths.record + "'", error_number);
}

}  // namespace vexa::cluster
