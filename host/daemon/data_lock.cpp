#include "host/daemon/data_lock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>

namespace vexa::daemon {

DataLock::~DataLock() {
  if (fd_ >= 0) ::close(fd_);
}

Result<DataLock> DataLock::Take(const std::string& data_directory) {
  const std::string path = data_directory + "/vexad.lock";
  DataLock lock;
  lock.fd_ = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
  if (lock.fd_ < 0) return SystemError(ErrorCode::kDenied, "Cannot open '" + path + "'", errno);
  if (::flock(lock.fd_, LOCK_EX | LOCK_NB) != 0) {
    if (errno != EWOULDBLOCK) return SystemError(ErrorCode::kInternal, "Cannot lock '" + path + "'", errno);
    return Error(ErrorCode::kBusy, "Another vexad uses the data folder '" + data_directory + "'");
  }
  return lock;
}

}  // namespace vexa::daemon
