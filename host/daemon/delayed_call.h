// A function that is called after a delay unless it is cancelled before.
#pragma once

#include <chrono>
#include <functional>
#include <thread>

#include "host/base/mutex.h"

namespace vexa::daemon {

class DelayedCall {
 public:
  // `call` runs on a thread of its own.
  DelayedCall(std::chrono::milliseconds delay, std::function<void()> call)
      : thread_([this, delay, call = std::move(call)] {
          if (!IsCancelledWithin(delay)) call();
        }) {}
  // Cancels the call, or waits until it has run.
  ~DelayedCall() {
    {
      const MutexLock lock(mutex_);
      is_cancelled_ = true;
    }
    changed_.NotifyAll();
    thread_.join();
  }
  DelayedCall(const DelayedCall&) = delete;
  DelayedCall& operator=(const DelayedCall&) = delete;

 private:
  bool IsCancelledWithin(std::chrono::milliseconds delay) {
    const auto end = std::chrono::steady_clock::now() + delay;
    const MutexLock lock(mutex_);
    while (!is_cancelled_ && changed_.WaitUntil(mutex_, end)) {
    }
    return is_cancelled_;
  }

  Mutex mutex_;
  ConditionVariable changed_;
  bool is_cancelled_ VEXA_GUARDED_BY(mutex_) = false;
  std::thread thread_;
};

}  // namespace vexa::daemon
