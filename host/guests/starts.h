// Starts of guests that are under way, so that they can be called off. For host/guests/*.cpp only.
#pragma once

#include <chrono>
#include <condition_variable>
#include <map>
#include <mutex>
#include <string>
#include <utility>

namespace vexa::guests {

// Of one guest there is one start at a time. Threads: any, at the same time.
class Starts {
 public:
  // The start is under way while it lives.
  class Start {
   public:
    Start(Starts& starts, std::string guest_id) : starts_(starts), guest_id_(std::move(guest_id)) {
      const std::lock_guard lock(starts_.mutex_);
      starts_.under_way_.emplace(guest_id_, false);
    }
    ~Start() {
      const std::lock_guard lock(starts_.mutex_);
      starts_.under_way_.erase(guest_id_);
      starts_.ended_.notify_all();
    }
    Start(const Start&) = delete;
    Start& operator=(const Start&) = delete;

    bool IsCalledOff() const {
      const std::lock_guard lock(starts_.mutex_);
      return starts_.under_way_.at(guest_id_);
    }

   private:
    Starts& starts_;
    const std::string guest_id_;
  };

  // Whether there is one. What it has begun by now goes on.
  bool CallOff(const std::string& guest_id) {
    const std::lock_guard lock(mutex_);
    const auto start = under_way_.find(guest_id);
    if (start == under_way_.end()) return false;
    start->second = true;
    return true;
  }

  // False: it goes on, or another does.
  bool AwaitEnd(const std::string& guest_id, std::chrono::milliseconds wait) {
    std::unique_lock lock(mutex_);
    return ended_.wait_for(lock, wait, [&] { return !under_way_.contains(guest_id); });
  }

 private:
  std::mutex mutex_;
  std::condition_variable ended_;
  std::map<std::string, bool> under_way_;  // whether it is called off
};

}  // namespace vexa::guests
