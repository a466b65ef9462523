// Shut-downs in progress. A guest ignores the power button until its system has booted, so the button is pressed
// repeatedly. For host/guests/*.cpp only.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <thread>

#include "host/base/mutex.h"

namespace vexa::guests {

struct ShutDownsOptions {
  std::chrono::milliseconds wait;
  std::chrono::milliseconds press_interval;
  // Presses the button. False: the guest does not run any more. May hang as long as the guest does.
  std::function<bool(const std::string& guest_id)> press;
  std::function<void(const std::string& guest_id)> on_given_up;  // `wait` is over
};

// Threads: any, at the same time. Calls the functions of its options on threads of its own, one at a time per guest,
// except that on_given_up may be called while a press for the guest hangs. A hanging press does not delay other guests.
class ShutDowns {
 public:
  explicit ShutDowns(ShutDownsOptions options);
  // Waits for calls of the functions to end.
  ~ShutDowns();

  // Call it after the first press, which this class does not make.
  void Begin(const std::string& guest_id);
  void End(const std::string& guest_id);
  bool IsInProgress(const std::string& guest_id) const;

  // Presses no more buttons. False: a call of a function has not ended within `timeout`.
  bool Stop(std::chrono::milliseconds timeout);

 private:
  using Clock = std::chrono::steady_clock;
  struct Pending {
    Clock::time_point next;
    Clock::time_point end;
    std::uint64_t number = 0;          // a new shut-down of the same guest has another number
    bool is_call_in_progress = false;  // a call of a function for it is in progress
  };
  void Run();
  void Call(const std::string& guest_id, std::uint64_t number, bool is_over);

  const ShutDownsOptions options_;
  mutable Mutex mutex_;
  ConditionVariable wake_;
  ConditionVariable ended_;
  std::map<std::string, Pending> pending_ VEXA_GUARDED_BY(mutex_);
  std::uint64_t last_number_ VEXA_GUARDED_BY(mutex_) = 0;
  int calls_ VEXA_GUARDED_BY(mutex_) = 0;
  bool stop_ VEXA_GUARDED_BY(mutex_) = false;
  std::thread thread_;
};

}  // namespace vexa::guests
