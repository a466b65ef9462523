// How busy the processors are.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>
#include <string_view>

#include "host/machine/machine.h"

namespace vexa::services {

// Ticks since the machine started, summed over all processors.
struct CpuTimes {
  std::uint64_t user = 0;    // programs, guests included
  std::uint64_t system = 0;  // the kernel, interrupts included
  std::uint64_t other = 0;   // waiting for disks, and time taken by the hypervisor below when this machine is virtual
  std::uint64_t idle = 0;
};

// The "cpu" line of /proc/stat; not set when it is damaged.
std::optional<CpuTimes> ParseCpuTimes(std::string_view stat);

// Whole percent of the time between two readings; the sum is at most 100.
struct CpuLoad {
  int user = 0;
  int system = 0;
  int other = 0;
};

// A counter that went backwards counts as unchanged. All zeros when no time has passed.
CpuLoad LoadBetween(const CpuTimes& before, const CpuTimes& after);

// Load over a short window: since the last call if that was 0.2 to 5 s ago, otherwise over 0.2 s from now, which the
// call then takes. A call less than 0.2 s after another one gets the same result.
// Threads: any, at the same time; they share one window.
class CpuSampler {
 public:
  using TimePoint = std::chrono::steady_clock::time_point;
  struct Clock {
    std::function<TimePoint()> now;
    std::function<void(std::chrono::milliseconds)> sleep;
  };
  explicit CpuSampler(Machine machine, Clock clock = SystemClock());

  // Not set: the counters cannot be read.
  std::optional<CpuLoad> Read();

  static Clock SystemClock();

 private:
  struct Sample {
    CpuTimes times;
    TimePoint taken;
  };
  std::optional<Sample> Take() const;

  const Machine machine_;
  const Clock clock_;
  std::mutex mutex_;
  std::optional<Sample> last_;
  std::optional<CpuLoad> load_;  // of the window that ended with last_
};

}  // namespace vexa::services
