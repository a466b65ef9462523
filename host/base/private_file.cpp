#include "host/base/private_file.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <vector>

#include "host/base/descriptor.h"

namespace vexa {
namespace {

// File times advance with the kernel's tick, 1 to 10 ms. This is two ticks plus a margin for a busy machine.
constexpr std::int64_t kTimeGranularityNs = 50'000'000;

Error Failed(const std::string& path, int error_number) {
  switch (error_number) {
    case ENOENT:
    case ENOTDIR:
      return SystemError(ErrorCode::kNotFound, "There is no file '" + path + "'", error_number);
    case ELOOP:
      return Error(ErrorCode::kDenied, "'" + path + "' is a symbolic link; name the file itself");
    case EACCES:
    case EPERM:
      return SystemError(ErrorCode::kDenied, "Cannot read '" + path + "'", error_number);
    default:
      return SystemError(ErrorCode::kInternal, "Cannot read '" + path + "'", error_number);
  }
}

FileStamp StampFrom(const struct stat& info) {
  return {info.st_dev, info.st_ino, info.st_size, info.st_mode, info.st_uid, info.st_mtim, info.st_ctim};
}

bool SameTime(const timespec& a, const timespec& b) { return a.tv_sec == b.tv_sec && a.tv_nsec == b.tv_nsec; }

bool IsRecent(const timespec& time) {
  timespec now{};
  ::clock_gettime(CLOCK_REALTIME, &now);
  // Beyond two seconds the answer is known, and the product below could overflow.
  if (std::abs(now.tv_sec - time.tv_sec) > 2) return false;
  const std::int64_t difference =
      std::int64_t{now.tv_sec - time.tv_sec} * 1'000'000'000 + std::int64_t{now.tv_nsec - time.tv_nsec};
  return std::abs(difference) < kTimeGranularityNs;
}

Status CheckPrivate(const std::string& path, const struct stat& info) {
  if (!S_ISREG(info.st_mode)) return Error(ErrorCode::kInvalid, "'" + path + "' is not a regular file");
  if (info.st_uid != 0 && info.st_uid != ::geteuid()) {
    return Error(ErrorCode::kDenied, "'" + path + "' belongs to neither this process's user nor root");
  }
  if ((info.st_mode & (S_IRWXG | S_IRWXO)) != 0) {
    return Error(ErrorCode::kDenied, "'" + path + "' may be used by others; its mode must be 0600");
  }
  return {};
}

Status ReadAll(const std::string& path, int fd, std::size_t max_bytes, std::string& content) {
  std::vector<char> buffer(64 * 1024);
  while (true) {
    const ssize_t count = ::read(fd, buffer.data(), buffer.size());
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return Failed(path, errno);
    if (count == 0) return {};
    content.append(buffer.data(), static_cast<std::size_t>(count));
    if (content.size() > max_bytes) {
      return Error(ErrorCode::kInvalid, "'" + path + "' is larger than " + std::to_string(max_bytes) + " bytes");
    }
  }
}

}  // namespace

bool FileStamp::operator==(const FileStamp& other) const {
  return device == other.device && inode == other.inode && size == other.size && mode == other.mode &&
         owner == other.owner && SameTime(modified, other.modified) && SameTime(changed, other.changed);
}

Result<FileStamp> StampOf(const std::string& path) {
  struct stat info {};
  if (::lstat(path.c_str(), &info) != 0) return Failed(path, errno);
  return StampFrom(info);
}

Result<PrivateFile> ReadPrivateFile(const std::string& path, std::size_t max_bytes) {
  if (path.find('\0') != std::string::npos) return Error(ErrorCode::kInvalid, "The path of a file contains a NUL");
  // O_NONBLOCK: a FIFO in place of the file must not block the caller.
  const Descriptor fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOFOLLOW));
  if (fd.get() < 0) return Failed(path, errno);
  // Our own files are replaced and never change in place; an editor may do otherwise.
  constexpr int kAttempts = 5;
  for (int attempt = 0; attempt < kAttempts; ++attempt) {
    struct stat before {};
    if (::fstat(fd.get(), &before) != 0) return Failed(path, errno);
    if (Status status = CheckPrivate(path, before); !status.ok()) return status.error();
    PrivateFile file;
    if (::lseek(fd.get(), 0, SEEK_SET) != 0) return Failed(path, errno);
    if (Status status = ReadAll(path, fd.get(), max_bytes, file.content); !status.ok()) return status.error();
    struct stat after {};
    if (::fstat(fd.get(), &after) != 0) return Failed(path, errno);
    file.stamp = StampFrom(after);
    // A file that was just replaced has lost its name. That changes its inode, not what was read.
    file.stamp.changed = before.st_ctim;
    if (!(file.stamp == StampFrom(before))) continue;
    file.stamp_may_repeat = IsRecent(after.st_mtim) || IsRecent(after.st_ctim);
    return file;
  }
  return Error(ErrorCode::kBusy, "'" + path + "' keeps changing while it is read");
}

}  // namespace vexa
