#include "host/cache/cache_lock.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/file.h>
#include <sys/stat.h>

#include <cerrno>

#include "host/base/files.h"

namespace vexa::cache {
namespace {

// Whether the open file is still the one at this path.
bool IsStillAt(int fd, const std::string& path) {
  struct stat open_file {};
  struct stat named {};
  return ::fstat(fd, &open_file) == 0 && ::lstat(path.c_str(), &named) == 0 && open_file.st_dev == named.st_dev &&
         open_file.st_ino == named.st_ino;
}

}  // namespace

Result<CacheLock> CacheLock::Try(const CachePaths& paths) {
  if (Status made = CreateDirectories(paths.folder, 0700); !made) return made.error();
  // O_CLOEXEC: otherwise a program that a refresh starts would keep the lock. A second attempt in case the file was
  // removed between its opening and its locking: other processes would then lock a new file.
  for (int attempt = 0; attempt < 2; ++attempt) {
    CacheLock lock(::open(paths.lock.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK, 0600));
    if (lock.fd_.get() < 0) return SystemError(ErrorCode::kDenied, fmt::format("Cannot open '{}'", paths.lock), errno);
    if (::flock(lock.fd_.get(), LOCK_EX | LOCK_NB) != 0) {
      if (errno == EWOULDBLOCK || errno == EINTR) break;
      return SystemError(ErrorCode::kInternal, fmt::format("Cannot lock '{}'", paths.lock), errno);
    }
    if (IsStillAt(lock.fd_.get(), paths.lock)) return lock;
  }
  return Error(ErrorCode::kBusy, fmt::format("Another process or thread holds '{}'", paths.lock));
}

}  // namespace vexa::cache
