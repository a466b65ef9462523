// Token buckets by key, of which the least important is given up when there are too many.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <utility>

namespace vexa::session {

// A bucket is stored as the time at which it will be full: each missing token delays that by `refill`. A bucket without
// an entry is full. All times are in milliseconds. Threads: one.
class TokenBuckets {
 public:
  TokenBuckets(int burst, std::int64_t refill, std::size_t max_entries)
      : refill_(std::max<std::int64_t>(0, refill)),
        max_deficit_(refill_ * (std::max(1, burst) - 1)),
        max_entries_(std::max<std::size_t>(1, max_entries)) {}

  // How long until a token is available; 0 if there is one.
  std::int64_t WaitTime(const std::string& key, std::int64_t now) const {
    const auto found = full_at_.find(key);
    return found == full_at_.end() ? 0 : std::max<std::int64_t>(0, found->second - now - max_deficit_);
  }

  void Take(const std::string& key, std::int64_t now) {
    const auto found = full_at_.find(key);
    const std::int64_t full_at = found == full_at_.end() ? now : std::max(found->second, now);
    if (found != full_at_.end()) {
      Erase(found);
    } else if (full_at_.size() >= max_entries_) {
      Erase(full_at_.find(by_time_.begin()->second));
    }
    Insert(key, full_at + refill_);
  }

  // Does nothing for a bucket that is full or has been given up meanwhile.
  void Return(const std::string& key, std::int64_t now) {
    const auto found = full_at_.find(key);
    if (found == full_at_.end()) return;
    const std::int64_t full_at = found->second - refill_;
    Erase(found);
    if (full_at > now) Insert(key, full_at);
  }

 private:
  void Insert(const std::string& key, std::int64_t full_at) {
    full_at_[key] = full_at;
    by_time_.emplace(full_at, key);
  }
  void Erase(std::map<std::string, std::int64_t>::iterator entry) {
    by_time_.erase({entry->second, entry->first});
    full_at_.erase(entry);
  }

  const std::int64_t refill_;
  const std::int64_t max_deficit_;  // the longest time until full at which a bucket still has a token
  const std::size_t max_entries_;
  std::map<std::string, std::int64_t> full_at_;
  std::set<std::pair<std::int64_t, std::string>> by_time_;  // the same, the fullest bucket first
};

}  // namespace vexa::session
