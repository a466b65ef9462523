// Keeps track of the starts in progress, so that they can be cancelled. For host/guests/*.cpp only.
#pragma once

#include <chrono>
#include <map>
#include <string>
#include <utility>

#include "host/base/mutex.h"

namespace vexa::guests {

// The effect of cancelling a start.
enum class CancelResult {
  kNone,       // no start is in progress
  kCancelled,  // it has not reached the hypervisor, and will not
  kTooLate,    // it has reached the hypervisor: the guest may run by now
};

// A guest has one start at a time. Threads: any, at the same time.
class Starts {
 public:
  // The start is in progress while the object lives.
  class Start {
   public:
    Start(Starts& starts, std::string guest_id) : starts_(starts), guest_id_(std::move(guest_id)) {
      const MutexLock lock(starts_.mutex_);
      starts_.in_progress_.emplace(guest_id_, State());
    }
    ~Start() {
      const MutexLock lock(starts_.mutex_);
      starts_.in_progress_.erase(guest_id_);
      starts_.ended_.NotifyAll();
    }
    Start(const Start&) = delete;
    Start& operator=(const Start&) = delete;

    // Call it before the hypervisor is called. False: the start was cancelled.
    bool TryEnterHypervisor() const {
      const MutexLock lock(starts_.mutex_);
      State& state = starts_.in_progress_.at(guest_id_);
      if (!state.is_cancelled) state.is_in_hypervisor = true;
      return !state.is_cancelled;
    }

   private:
    Starts& starts_;
    const std::string guest_id_;
  };

  CancelResult Cancel(const std::string& guest_id) {
    const MutexLock lock(mutex_);
    const auto start = in_progress_.find(guest_id);
    if (start == in_progress_.end()) return CancelResult::kNone;
    start->second.is_cancelled = true;
    return start->second.is_in_hypervisor ? CancelResult::kTooLate : CancelResult::kCancelled;
  }

  // False: this start, or a later one, is still in progress after `wait`.
  bool AwaitEnd(const std::string& guest_id, std::chrono::milliseconds wait) {
    const auto end = std::chrono::steady_clock::now() + wait;
    const MutexLock lock(mutex_);
    while (in_progress_.contains(guest_id) && ended_.WaitUntil(mutex_, end)) {
    }
    return !in_progress_.contains(guest_id);
  }

 private:
  struct State {
    bool is_cancelled = false;
    bool is_in_hypervisor = false;
  };
  Mutex mutex_;
  ConditionVariable ended_;
  std::map<std::string, State> in_progress_;
};

}  // namespace vexa::guests
