// Limits the refresh of a cached value to one at a time on a host, across all threads and processes.
#pragma once

#include "host/base/descriptor.h"
#include "host/base/result.h"
#include "host/cache/cache_paths.h"

namespace vexa::cluster {

// Held while the object lives, and at most as long as its process: the kernel releases the lock of a killed process.
class CacheLock {
 public:
  // Never waits. kBusy: the lock is held. Any other error: locking is impossible because the cache's folder cannot be
  // written.
  static Result<CacheLock> Try(const CachePaths& paths);

 private:
  explicit CacheLock(int fd) : fd_(fd) {}
  Descriptor fd_;
};

}  // namespace vexa::cluster
