#include "host/store/store_place.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <utility>

#include "host/base/descriptor.h"

namespace vexa::store {
namespace {

constexpr std::size_t kHeadBytes = 4096;

// Reads the head from the disk, bypassing the cache where the file system allows it. 0 or errno(3).
int ReadHead(const std::string& path) {
  alignas(kHeadBytes) char head[kHeadBytes];
  for (const int flags : {O_DIRECT, 0}) {
    // Closing a descriptor of a file drops the process's POSIX locks on it; LMDB has none on this file.
    const Descriptor file(::open(path.c_str(), flags | O_NOFOLLOW | O_RDONLY | O_CLOEXEC));
    const int failed_open = file.get() < 0 ? errno : 0;
    const ssize_t got = failed_open == 0 ? ::pread(file.get(), head, sizeof head, 0) : -1;
    if (got == static_cast<ssize_t>(sizeof head)) return 0;
    const int code = failed_open != 0 ? failed_open : got < 0 ? errno : ENODATA;
    // Bypassing the cache may fail for reasons of its own, such as the number of open files.
    if (flags == 0) return code;
  }
  return EINVAL;
}

Error Gone(std::string what) { return Error(ErrorCode::kUnavailable, std::move(what)); }

}  // namespace

StorePlace::StorePlace(std::string path, const FolderId& opened, std::function<Status()> look, PlaceCheck check)
    : path_(std::move(path)), opened_(opened), look_(std::move(look)), check_(check) {}

Status StorePlace::Check() const {
  const Clock::time_point now = Clock::now();
  if (now.time_since_epoch().count() < in_place_until_.load(std::memory_order_relaxed)) return {};
  return CheckSlowly(now);
}

Status StorePlace::CheckSlowly(Clock::time_point now) const {
  {
    const std::lock_guard lock(mutex_);
    if (looking_) {
      if (check_ == PlaceCheck::kPath || now - look_began_ < kLongestLook) return found_;
      return Gone("The database file '" + path_ + "' does not answer: look after its disk or file server");
    }
    if (now < next_look_) return found_;
    looking_ = true;
    look_began_ = now;
    // Other callers need not wait for the check or take this path.
    if (found_.ok()) in_place_until_ = (now + kLongestLook).time_since_epoch().count();
  }
  Status seen = look_ ? look_() : Look();
  const std::lock_guard lock(mutex_);
  looking_ = false;
  found_ = std::move(seen);
  next_look_ = Clock::now() + (found_.ok() ? kLookInterval : kLookIntervalWhenGone);
  in_place_until_ = found_.ok() ? next_look_.time_since_epoch().count() : 0;
  return found_;
}

Status StorePlace::Look() const {
  struct stat info {};
  if (::stat(path_.c_str(), &info) != 0) {
    if (errno == ENOENT || errno == ENOTDIR) {
      return Gone("The database file '" + path_ + "' is gone: mount its folder, or move it back");
    }
    return SystemError(ErrorCode::kUnavailable, "The database file '" + path_ + "' cannot be reached", errno);
  }
  if (FolderId(info.st_dev, info.st_ino) != opened_) {
    return Gone("Another file is in the place of the database file '" + path_ +
                "': put the one back that was there, or restart the service to use the new one");
  }
  if (check_ == PlaceCheck::kPath) return {};
  if (const int code = ReadHead(path_); code != 0) {
    return SystemError(ErrorCode::kUnavailable, "The database file '" + path_ + "' cannot be read", code);
  }
  return {};
}

}  // namespace vexa::store
