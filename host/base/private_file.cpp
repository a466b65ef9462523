#include "host/base/private_file.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <ctime>

#include "host/base/descriptor.h"
#include "host/base/files.h"

namespace vexa {
namespace {

// File times advance with the kernel's tick, every 1 to 10 ms. This is two ticks plus a margin for a busy machine.
constexpr std::int64_t kTimeGranularityNs = 50'000'000;

Error Failed(const std::string& path, int error_number) {
  switch (error_number) {
    case ENOENT:
    case ENOTDIR:
      return SystemError(ErrorCode::kNotFound, fmt::format("There is no file '{}'", path), error_number);
    case ELOOP:
      return Error(ErrorCode::kDenied, fmt::format("'{}' is a symbolic link. Name the file itself", path));
    case EACCES:
    case EPERM:
      return SystemError(ErrorCode::kDenied, fmt::format("Cannot read '{}'", path), error_number);
    default:
      return SystemError(ErrorCode::kInternal, fmt::format("Cannot read '{}'", path), error_number);
  }
}

FileStamp StampFrom(const struct stat& info) {
  return {info.st_dev, info.st_ino, info.st_size, info.st_mode, info.st_uid, info.st_mtim, info.st_ctim};
}

bool IsSameTime(const timespec& a, const timespec& b) { return a.tv_sec == b.tv_sec && a.tv_nsec == b.tv_nsec; }

bool IsRecent(const timespec& time) {
  timespec now{};
  ::clock_gettime(CLOCK_REALTIME, &now);
  // Beyond two seconds the time is not recent, and the product below could overflow.
  if (std::abs(now.tv_sec - time.tv_sec) > 2) return false;
  const std::int64_t difference =
      std::int64_t{now.tv_sec - time.tv_sec} * 1'000'000'000 + std::int64_t{now.tv_nsec - time.tv_nsec};
  return std::abs(difference) < kTimeGranularityNs;
}

Status CheckPrivate(const std::string& path, const struct stat& info) {
  if (!S_ISREG(info.st_mode)) return Error(ErrorCode::kInvalid, fmt::format("'{}' is not a regular file", path));
  if (info.st_uid != 0 && info.st_uid != ::geteuid()) {
    return Error(ErrorCode::kDenied, fmt::format("'{}' belongs to neither this process's user nor root", path));
  }
  if ((info.st_mode & (S_IRWXG | S_IRWXO)) != 0) {
    return Error(ErrorCode::kDenied, fmt::format("'{}' may be used by others. Set its mode to 0600", path));
  }
  return {};
}

}  // namespace

bool FileStamp::operator==(const FileStamp& other) const {
  return device == other.device && inode == other.inode && size == other.size && mode == other.mode &&
         owner == other.owner && IsSameTime(modified, other.modified) && IsSameTime(changed, other.changed);
}

Result<FileStamp> ReadFileStamp(const std::string& path) {
  struct stat info {};
  if (::lstat(path.c_str(), &info) != 0) return Failed(path, errno);
  return StampFrom(info);
}

Result<PrivateFile> ReadPrivateFile(const std::string& path, std::size_t max_bytes) {
  if (path.find('\0') != std::string::npos) return Error(ErrorCode::kInvalid, "The path of a file contains a NUL");
  // O_NONBLOCK: a FIFO in place of the file must not block the caller.
  const Descriptor fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOFOLLOW));
  if (fd.get() < 0) return Failed(path, errno);
  // Our own files are always replaced, but an editor may change a file in place while it is read.
  constexpr int kAttempts = 5;
  for (int attempt = 0; attempt < kAttempts; ++attempt) {
    struct stat before {};
    if (::fstat(fd.get(), &before) != 0) return Failed(path, errno);
    if (Status status = CheckPrivate(path, before); !status.ok()) return status.error();
    PrivateFile file;
    if (::lseek(fd.get(), 0, SEEK_SET) != 0) return Failed(path, errno);
    if (Status status = ReadRest(fd.get(), path, max_bytes, file.content); !status.ok()) return status.error();
    struct stat after {};
    if (::fstat(fd.get(), &after) != 0) return Failed(path, errno);
    file.stamp = StampFrom(after);
    // Ignore a change of st_ctim alone: replacing the file by another one removes this file's name, which changes
    // st_ctim but not the content.
    file.stamp.changed = before.st_ctim;
    if (!(file.stamp == StampFrom(before))) continue;
    file.stamp_may_repeat = IsRecent(after.st_mtim) || IsRecent(after.st_ctim);
    return file;
  }
  return Error(ErrorCode::kBusy, fmt::format("'{}' keeps changing while it is read", path));
}

}  // namespace vexa
