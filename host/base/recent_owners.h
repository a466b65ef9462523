// Whether more than one owner has had jobs lately.
#pragma once

#include <atomic>
#include <chrono>
#include <functional>
#include <string>

namespace vexa {

// Several lanes may share one. Threads: any, at the same time.
class RecentOwners {
 public:
  using Clock = std::chrono::steady_clock;
  // How long an owner is remembered after the last of its jobs came.
  static constexpr std::chrono::seconds kMemory{10};

  // A job of this owner came. Those without an owner are the process's own and do not count.
  void Note(const std::string& owner, Clock::time_point now) {
    if (owner.empty()) return;
    const std::size_t hash = std::hash<std::string>()(owner) | 1;
    const std::size_t last = last_.exchange(hash, std::memory_order_relaxed);
    if (last != 0 && last != hash) changed_at_.store(now, std::memory_order_relaxed);
  }
  bool AreSeveral(Clock::time_point now) const {
    const Clock::time_point changed_at = changed_at_.load(std::memory_order_relaxed);
    return changed_at != Clock::time_point() && now < changed_at + kMemory;
  }

 private:
  std::atomic<std::size_t> last_{0};               // the hash of the last owner; 0 until there is one
  std::atomic<Clock::time_point> changed_at_{{}};  // when a job had another owner than the one before; the epoch: never
};

}  // namespace vexa
