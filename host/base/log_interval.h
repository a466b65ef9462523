// Keeps log lines that others can cause from filling the log.
#pragma once

#include <atomic>
#include <chrono>

namespace vexa {

// Threads: any.
class LogInterval {
 public:
  explicit LogInterval(std::chrono::steady_clock::duration interval) : interval_(interval) {}

  // Whether the last line that was due is at least an interval ago. True for one of several threads.
  bool IsDue() {
    const auto now = std::chrono::steady_clock::now().time_since_epoch();
    auto last = last_.load();
    return (last == Duration::zero() || now - last >= interval_) && last_.compare_exchange_strong(last, now);
  }

 private:
  using Duration = std::chrono::steady_clock::duration;
  const Duration interval_;
  std::atomic<Duration> last_{Duration::zero()};
};

}  // namespace vexa
