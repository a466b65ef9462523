// Keeps log lines that others can cause from filling the log.
#pragma once

#include <chrono>
#include <string>
#include <unordered_map>

#include "host/base/mutex.h"

namespace vexa {

// Threads: any.
class LogInterval {
 public:
  static constexpr std::size_t kMaxKeys = 256;

  explicit LogInterval(std::chrono::steady_clock::duration interval) : interval_(interval) {}

  // Whether the last line of `key` that was due is at least an interval ago. Lines of one key do not hide those of
  // others, but within an interval, lines of at most kMaxKeys keys are due.
  bool IsDue(const std::string& key) {
    const auto now = std::chrono::steady_clock::now();
    const MutexLock lock(mutex_);
    if (const auto found = last_.find(key); found != last_.end()) {
      if (now - found->second < interval_) return false;
      found->second = now;
      return true;
    }
    if (last_.size() >= kMaxKeys) {
      std::erase_if(last_, [&](const auto& entry) { return now - entry.second >= interval_; });
      if (last_.size() >= kMaxKeys) return false;
    }
    last_.emplace(key, now);
    return true;
  }

 private:
  const std::chrono::steady_clock::duration interval_;
  Mutex mutex_;
  std::unordered_map<std::string, std::chrono::steady_clock::time_point> last_ VEXA_GUARDED_BY(mutex_);
};

}  // namespace vexa
