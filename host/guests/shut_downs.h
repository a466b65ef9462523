// Shut-downs in progress: a press of the power button before the guest's system listens is lost, so the button is
// pressed repeatedly. For host/guests/*.cpp only.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <thread>

namespace vexa::guests {

struct ShutDownsOptions {
  std::chrono::milliseconds wait;
  std::chrono::milliseconds press_again;
  // False: there is nothing left to press. May hang with the guest.
  std::function<bool(const std::string& guest_id)> press;
  std::function<void(const std::string& guest_id)> on_given_up;
};

// Threads: any, at the same time. The functions are called on threads of its own, one at a time per guest, except that
// a guest may be given up while a press for it hangs. A hanging press does not delay other guests.
class ShutDowns {
 public:
  explicit ShutDowns(ShutDownsOptions options);
  // Waits for calls of the functions to end.
  ~ShutDowns();

  // The first press has been made.
  void Begin(const std::string& guest_id);
  void End(const std::string& guest_id);
  bool IsUnderWay(const std::string& guest_id) const;

  // Presses nothing more. False: a call of a function has not ended by then.
  bool Stop(std::chrono::milliseconds patience);

 private:
  using Clock = std::chrono::steady_clock;
  struct Pending {
    Clock::time_point next;
    Clock::time_point end;
    std::uint64_t number = 0;  // a new shut-down of the same guest has another number
    bool is_called = false;    // a call for it has not ended
  };
  void Run();
  void Call(const std::string& guest_id, std::uint64_t number, bool is_over);

  const ShutDownsOptions options_;
  mutable std::mutex mutex_;
  std::condition_variable wake_;
  std::condition_variable ended_;
  std::map<std::string, Pending> pending_;
  std::uint64_t begun_ = 0;
  int calls_ = 0;
  bool stop_ = false;
  std::thread thread_;
};

}  // namespace vexa::guests
