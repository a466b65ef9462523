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

// Ticks since the machine started, of all processors together.
struct CpuTimes {
  std::uint64_t user = 0;    // programs, guests included
  std::uint64_t system = 0;  // the kernel, interrupts included
  std::uint64_t other = 0;   // waiting for disks, and taken by the machine below when this one is virtual
  std::uint64_t idle = 0;
};

// The "cpu" line of /proc/stat; not set when it is damaged.
std::optional<CpuTimes> ParseCpuTimes(std::string_view stat);

// Whole percent of the time between two readings; together at most 100.
struct CpuLoad {
  int user = 0;
  int system = 0;
  int other = 0;
};

// A counter that went backwards counts as unchanged. All zero when no time has passed.
CpuLoad LoadBetween(const CpuTimes& before, const CpuTimes& after);

// Load over a short window: since the last call, when that is 0.2 to 5 s ago, else over 0.2 s from now, which the call
// then takes. A call less than 0.2 s after another one gets the same answer.
// Threads: any, at the same time; they share one window.
class CpuSampler {
 public:
  using TimePoint = std::chrono::steady_clock::time_point;
  struct Clock {
    std::function<TimePoint()> now;
    std::function<void(std::chrono::milliseconds)> sleep;
  };
  explicit CpuSampler(Machine machine, Clock clock = SystemClock());

  // Not set: the figures cannot be read.
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
