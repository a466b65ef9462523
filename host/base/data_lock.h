// One daemon per data folder.
#pragma once

#include <string>
#include <utility>

#include "host/base/result.h"

namespace vexa {

// Held while it lives; the system releases it when the process ends, however that happens. Two daemons would overwrite
// each other's sessions.
class DataLock {
 public:
  DataLock() = default;
  DataLock(DataLock&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
  DataLock& operator=(DataLock&& other) noexcept {
    std::swap(fd_, other.fd_);
    return *this;
  }
  ~DataLock();

  // kBusy when another daemon has it; otherwise what the system says. Waits up to a second for those who share it.
  static Result<DataLock> Take(const std::string& data_directory);

  // Keeps daemons from starting; any number of commands share it. kBusy when a daemon has it. Nothing is created: a
  // folder without the file, or no folder at all, has never had a daemon, and its first one is not kept from starting.
  static Result<DataLock> Share(const std::string& data_directory);

 private:
  int fd_ = -1;
};

}  // namespace vexa
