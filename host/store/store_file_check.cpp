#include "host/store/store_file_check.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <utility>

#include "host/base/descriptor.h"

namespace vexa::store {
namespace {

constexpr std::size_t kHeaderBytes = 4096;

// Reads the header from the disk, bypassing the cache where the file system allows it. 0 or errno(3).
int ReadHeader(const std::string& path) {
  alignas(kHeaderBytes) char header[kHeaderBytes];
  for (const int flags : {O_DIRECT, 0}) {
    // Closing a descriptor of a file drops the process's POSIX locks on it; LMDB has none on this file.
    const Descriptor file(::open(path.c_str(), flags | O_NOFOLLOW | O_RDONLY | O_CLOEXEC));
    const int failed_open = file.get() < 0 ? errno : 0;
    const ssize_t got = failed_open == 0 ? ::pread(file.get(), header, sizeof header, 0) : -1;
    if (got == static_cast<ssize_t>(sizeof header)) return 0;
    const int code = failed_open != 0 ? failed_open : got < 0 ? errno : ENODATA;
    // Bypassing the cache may fail for reasons of its own, such as the number of open files.
    if (flags == 0) return code;
  }
  return EINVAL;
}

Error Unavailable(std::string what) { return Error(ErrorCode::kUnavailable, std::move(what)); }

}  // namespace

StoreFileCheck::StoreFileCheck(std::string path, const FolderId& opened, std::function<Status()> check_file,
                               FileCheckMode mode)
    : path_(std::move(path)), opened_(opened), check_file_(std::move(check_file)), mode_(mode) {}

Status StoreFileCheck::Check() const {
  const Clock::time_point now = Clock::now();
  if (now.time_since_epoch().count() < valid_until_.load(std::memory_order_relaxed)) return {};
  return CheckWithLock(now);
}

Status StoreFileCheck::CheckWithLock(Clock::time_point now) const {
  {
    const MutexLock lock(mutex_);
    if (checking_) {
      if (mode_ == FileCheckMode::kPath || now - check_started_ < kMaxCheckTime) return last_result_;
      return Unavailable(fmt::format("The database file '{}' does not respond. Check its disk or file server", path_));
    }
    if (now < next_check_) return last_result_;
    checking_ = true;
    check_started_ = now;
    // Meanwhile, other callers use the last result without the lock.
    if (last_result_.ok()) valid_until_ = (now + kMaxCheckTime).time_since_epoch().count();
  }
  Status result = check_file_ ? check_file_() : CheckFile();
  const MutexLock lock(mutex_);
  checking_ = false;
  last_result_ = std::move(result);
  next_check_ = Clock::now() + (last_result_.ok() ? kCheckInterval : kCheckIntervalWhenUnavailable);
  valid_until_ = last_result_.ok() ? next_check_.time_since_epoch().count() : 0;
  return last_result_;
}

Status StoreFileCheck::CheckFile() const {
  struct stat info {};
  if (::stat(path_.c_str(), &info) != 0) {
    if (errno == ENOENT || errno == ENOTDIR) {
      return Unavailable(fmt::format("The database file '{}' is missing. Mount its folder, or move it back", path_));
    }
    return SystemError(ErrorCode::kUnavailable, fmt::format("The database file '{}' cannot be reached", path_), errno);
  }
  if (FolderId(info.st_dev, info.st_ino) != opened_) {
    return Unavailable(fmt::format(
        "The database file '{}' has been replaced by another file. Put the previous one back, or restart the "
        "service to use the new one",
        path_));
  }
  if (mode_ == FileCheckMode::kPath) return {};
  if (const int code = ReadHeader(path_); code != 0) {
    return SystemError(ErrorCode::kUnavailable, fmt::format("The database file '{}' cannot be read", path_), code);
  }
  return {};
}

}  // namespace vexa::store
