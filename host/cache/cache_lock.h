// Limits the refresh of a cached value to one at a time on a host, across all threads and processes.
#pragma once

#include "host/base/descriptor.h"
#include "host/base/result.h"
#include "host/cache/cache_paths.h"

namespace vexa::cache {

// Held while the object lives. When a process is killed, the kernel releases its locks.
class CacheLock {
 public:
  // Takes the lock if it is free. Never waits. Errors: kBusy when it is held; any other when the cache's folder cannot
  // be written.
  static Result<CacheLock> Try(const CachePaths& paths);

 private:
  explicit CacheLock(int fd) : fd_(fd) {}
  Descriptor fd_;
};

}  // namespace vexa::cache
