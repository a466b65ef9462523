// A function that is called after a delay unless it is cancelled before.
#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <thread>

namespace vexa::daemon {

class DelayedCall {
 public:
  // `call` runs on a thread of its own.
  DelayedCall(std::chrono::milliseconds delay, std::function<void()> call)
      : thread_([this, delay, call = std::move(call)] {
          std::unique_lock lock(mutex_);
          const bool is_off = changed_.wait_for(lock, delay, [this] { return is_off_; });
          lock.unlock();
          if (!is_off) call();
        }) {}
  // Cancels the call, or waits until it has run.
  ~DelayedCall() {
    {
      const std::lock_guard lock(mutex_);
      is_off_ = true;
    }
    changed_.notify_all();
    thread_.join();
  }
  DelayedCall(const DelayedCall&) = delete;
  DelayedCall& operator=(const DelayedCall&) = delete;

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  bool is_off_ = false;
  std::thread thread_;
};

}  // namespace vexa::daemon
