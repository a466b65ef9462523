// Measures how busy the processors are.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <string_view>

#include "host/base/mutex.h"
#include "host/machine/machine.h"

namespace vexa::machine {

// Ticks since the machine started, summed over all processors.
struct CpuTimes {
  std::uint64_t user = 0;    // programs, including guests
  std::uint64_t system = 0;  // the kernel, including interrupts
  std::uint64_t other = 0;   // waiting for disks, and stolen by the hypervisor if this machine is virtual
  std::uint64_t idle = 0;
};

// Parses the "cpu" line of /proc/stat; not set if it is malformed.
std::optional<CpuTimes> ParseCpuTimes(std::string_view stat);

// The load between two readings in whole percent; the sum is at most 100.
struct CpuLoad {
  int user = 0;
  int system = 0;
  int other = 0;
};

// A counter that went backwards counts as unchanged. All zeros when no time has passed.
CpuLoad LoadBetween(const CpuTimes& before, const CpuTimes& after);

// Measures the load over a short window: since the last call if that was 0.2 to 5 s ago; otherwise the call blocks for
// 0.2 s and measures that window. A call less than 0.2 s after another one gets the same result.
// Threads: any, at the same time; they share one window.
class CpuSampler {
 public:
  using TimePoint = std::chrono::steady_clock::time_point;
  struct Clock {
    std::function<TimePoint()> now;
    std::function<void(std::chrono::milliseconds)> sleep;
  };
  explicit CpuSampler(Machine machine, Clock clock = SystemClock());

  // Not set if the counters cannot be read.
  std::optional<CpuLoad> Read();

  static Clock SystemClock();

 private:
  struct Sample {
    CpuTimes times;
    TimePoint taken;
  };
  std::optional<Sample> TakeSample() const;

  const Machine machine_;
  const Clock clock_;
  Mutex mutex_;
  std::optional<Sample> last_ VEXA_GUARDED_BY(mutex_);
  std::optional<CpuLoad> load_ VEXA_GUARDED_BY(mutex_);  // of the window that ended with last_
};

}  // namespace vexa::machine
