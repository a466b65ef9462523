// One daemon per data folder.
#pragma once

#include <string>

#include "host/base/descriptor.h"
#include "host/base/result.h"

namespace vexa {

// Held while it lives; the system lets it go when the process ends, however that happens. Two daemons would overwrite
// each other's sessions.
class DataLock {
 public:
  // kBusy when another daemon has it; otherwise what the system says. Waits up to a second for a CheckFree to end.
  static Result<DataLock> Take(const std::string& data_directory);

  // kBusy when a daemon has it. A folder without the file, or no folder at all, has no daemon. Nothing is created.
  static Status CheckFree(const std::string& data_directory);

 private:
  Descriptor fd_;
};

}  // namespace vexa
