// Starts of guests in progress, so that they can be cancelled. For host/guests/*.cpp only.
#pragma once

#include <chrono>
#include <condition_variable>
#include <map>
#include <mutex>
#include <string>
#include <utility>

namespace vexa::guests {

// The effect of cancelling a start.
enum class CalledOff {
  kNone,     // no start is in progress
  kForGood,  // it has not reached the hypervisor, and will not
  kTooLate,  // it has reached it: the guest may run by now
};

// A guest has one start at a time. Threads: any, at the same time.
class Starts {
 public:
  // The start is in progress while the object lives.
  class Start {
   public:
    Start(Starts& starts, std::string guest_id) : starts_(starts), guest_id_(std::move(guest_id)) {
      const std::lock_guard lock(starts_.mutex_);
      starts_.under_way_.emplace(guest_id_, State());
    }
    ~Start() {
      const std::lock_guard lock(starts_.mutex_);
      starts_.under_way_.erase(guest_id_);
      starts_.ended_.notify_all();
    }
    Start(const Start&) = delete;
    Start& operator=(const Start&) = delete;

    // Call it before the hypervisor is called. False: the start was cancelled.
    bool GoOn() const {
      const std::lock_guard lock(starts_.mutex_);
      State& state = starts_.under_way_.at(guest_id_);
      if (!state.is_called_off) state.is_in_hypervisor = true;
      return !state.is_called_off;
    }

   private:
    Starts& starts_;
    const std::string guest_id_;
  };

  CalledOff CallOff(const std::string& guest_id) {
    const std::lock_guard lock(mutex_);
    const auto start = under_way_.find(guest_id);
    if (start == under_way_.end()) return CalledOff::kNone;
    start->second.is_called_off = true;
    return start->second.is_in_hypervisor ? CalledOff::kTooLate : CalledOff::kForGood;
  }

  // False: it, or another start, is still in progress.
  bool AwaitEnd(const std::string& guest_id, std::chrono::milliseconds wait) {
    std::unique_lock lock(mutex_);
    return ended_.wait_for(lock, wait, [&] { return !under_way_.contains(guest_id); });
  }

 private:
  struct State {
    bool is_called_off = false;
    bool is_in_hypervisor = false;
  };
  std::mutex mutex_;
  std::condition_variable ended_;
  std::map<std::string, State> under_way_;
};

}  // namespace vexa::guests
