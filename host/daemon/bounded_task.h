// Work that may hang, done on a thread of its own, so that others can stop waiting for it.
#pragma once

#include <chrono>
#include <functional>
#include <thread>
#include <utility>

#include "host/base/mutex.h"

namespace vexa::daemon {

// Threads: one constructs, waits and destroys.
class BoundedTask {
 public:
  explicit BoundedTask(std::function<void()> work)
      : thread_([this, work = std::move(work)] {
          work();
          const MutexLock lock(mutex_);
          is_done_ = true;
          changed_.NotifyAll();
        }) {}
  // Waits for the work, however long it takes.
  ~BoundedTask() { thread_.join(); }
  BoundedTask(const BoundedTask&) = delete;
  BoundedTask& operator=(const BoundedTask&) = delete;

  // Whether the work is done within `timeout`.
  bool Wait(std::chrono::milliseconds timeout) {
    const auto end = std::chrono::steady_clock::now() + timeout;
    const MutexLock lock(mutex_);
    while (!is_done_ && changed_.WaitUntil(mutex_, end)) {
    }
    return is_done_;
  }

 private:
  Mutex mutex_;
  ConditionVariable changed_;
  bool is_done_ VEXA_GUARDED_BY(mutex_) = false;
  std::thread thread_;
};

}  // namespace vexa::daemon
