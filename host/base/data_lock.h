// A lock file that keeps two daemons from using the same data folder.
#pragma once

#include <string>

#include "host/base/descriptor.h"
#include "host/base/result.h"

namespace vexa {

// The lock is held until the object is destroyed; the system releases it when the process ends, however that happens.
// Without it, two daemons would overwrite each other's sessions.
class DataLock {
 public:
  // For the daemon: exclusive. kBusy when another daemon has the lock or commands still share it after a second;
  // otherwise the system's error.
  static Result<DataLock> Take(const std::string& data_directory);

  // For commands: prevents a daemon from starting. Several commands may hold it at the same time. kBusy when a daemon
  // has the lock. Nothing is created: without the file or its folder, no daemon has run here yet, so nothing is locked
  // and the first daemon can start.
  static Result<DataLock> Share(const std::string& data_directory);

 private:
  Descriptor fd_;
};

}  // namespace vexa
