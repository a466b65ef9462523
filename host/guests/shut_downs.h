// Shut-downs under way: a press of the power button that comes before the guest's system listens is lost, so it is
// pressed again and again. For host/guests/*.cpp only.
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
  // False: there is nothing more to press.
  std::function<bool(const std::string& guest_id)> press;
  std::function<void(const std::string& guest_id)> on_given_up;
};

// Threads: any, at the same time; the functions are called on a thread of its own, one at a time.
class ShutDowns {
 public:
  explicit ShutDowns(ShutDownsOptions options);
  ~ShutDowns();

  // The first press has been made.
  void Begin(const std::string& guest_id);
  void End(const std::string& guest_id);
  bool IsUnderWay(const std::string& guest_id) const;

 private:
  using Clock = std::chrono::steady_clock;
  struct Pending {
    Clock::time_point next;
    Clock::time_point end;
    std::uint64_t number = 0;  // one begun anew has another
  };
  void Run();

  const ShutDownsOptions options_;
  mutable std::mutex mutex_;
  std::condition_variable wake_;
  std::map<std::string, Pending> pending_;
  std::uint64_t begun_ = 0;
  bool stop_ = false;
  std::thread thread_;
};

}  // namespace vexa::guests
