// Who may find a cached value out anew: one at a time on a host, of all threads and processes.
#pragma once

#include "host/base/result.h"
#include "host/cache/cache_paths.h"

namespace vexa::cluster {

// Held while it lives, and at most as long as its process does: the kernel lets go of a killed process's lock.
class CacheLock {
 public:
  // Never waits. kBusy: somebody else holds it. Any other error: there can be no lock, because the cache's folder
  // cannot be written.
  static Result<CacheLock> Try(const CachePaths& paths);

  CacheLock(CacheLock&& other) noexcept;
  CacheLock& operator=(CacheLock&&) = delete;
  ~CacheLock();

 private:
  explicit CacheLock(int fd) : fd_(fd) {}
  int fd_;
};

}  // namespace vexa::cluster
