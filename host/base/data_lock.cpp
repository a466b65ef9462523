#include "host/base/data_lock.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/file.h>

#include <cerrno>
#include <chrono>
#include <thread>

namespace vexa {
namespace {

constexpr int kMaxAttempts = 10;
constexpr std::chrono::milliseconds kRetryInterval{100};

std::string PathIn(const std::string& data_directory) { return data_directory + "/vexad.lock"; }

Error InUse(const std::string& data_directory) {
  return Error(ErrorCode::kBusy,
               fmt::format("Another vexad uses the data folder '{}'. Stop it ('systemctl stop vexad'), or "
                           "choose another folder with --data",
                           data_directory));
}

}  // namespace

Result<DataLock> DataLock::Take(const std::string& data_directory) {
  const std::string path = PathIn(data_directory);
  DataLock lock;
  lock.fd_ = Descriptor(::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600));
  if (lock.fd_.get() < 0) return SystemError(ErrorCode::kDenied, fmt::format("Cannot open '{}'", path), errno);
  for (int i = 0; i < kMaxAttempts; ++i) {
    if (::flock(lock.fd_.get(), LOCK_EX | LOCK_NB) == 0) return lock;
    if (errno != EWOULDBLOCK) return SystemError(ErrorCode::kInternal, fmt::format("Cannot lock '{}'", path), errno);
    std::this_thread::sleep_for(kRetryInterval);
  }
  return InUse(data_directory);
}

Result<DataLock> DataLock::Share(const std::string& data_directory) {
  const std::string path = PathIn(data_directory);
  DataLock lock;
  lock.fd_ = Descriptor(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW));
  if (lock.fd_.get() < 0 && (errno == ENOENT || errno == ENOTDIR)) return lock;
  if (lock.fd_.get() < 0) return SystemError(ErrorCode::kDenied, fmt::format("Cannot open '{}'", path), errno);
  if (::flock(lock.fd_.get(), LOCK_SH | LOCK_NB) == 0) return lock;
  if (errno != EWOULDBLOCK) return SystemError(ErrorCode::kInternal, fmt::format("Cannot lock '{}'", path), errno);
  return InUse(data_directory);
}

}  // namespace vexa
