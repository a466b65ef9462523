// One daemon per data folder.
#pragma once

#include <string>
#include <utility>

#include "host/base/result.h"

namespace vexa::daemon {

// Held while the object lives; the system releases it when the process ends, however that happens. Two daemons would
// overwrite each other's sessions. Changes by the command line do not need this lock.
class DataLock {
 public:
  DataLock() = default;
  DataLock(DataLock&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
  DataLock& operator=(DataLock&& other) noexcept {
    std::swap(fd_, other.fd_);
    return *this;
  }
  ~DataLock();

  // kBusy when another daemon has it; otherwise the system's error.
  static Result<DataLock> Take(const std::string& data_directory);

 private:
  int fd_ = -1;
};

}  // namespace vexa::daemon
