// One daemon per data folder.
#pragma once

#include <string>
#include <utility>

#include "host/base/result.h"

namespace vexa::daemon {

// Held while it lives; the system lets it go when the process ends, however that happens. Two daemons would overwrite
// each other's sessions. The command line's changes need no such lock.
class DataLock {
 public:
  DataLock() = default;
  DataLock(DataLock&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
  DataLock& operator=(DataLock&& other) noexcept {
    std::swap(fd_, other.fd_);
    return *this;
  }
  ~DataLock();

  // kBusy when another daemon has it; otherwise what the system says.
  static Result<DataLock> Take(const std::string& data_directory);

 private:
  int fd_ = -1;
};

}  // namespace vexa::daemon
