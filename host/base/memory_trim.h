// Gives memory that was freed back to the system.
//
// The C library keeps freed memory for the next allocations. After a burst of large requests a process would stay as
// large as it was at the busiest moment, for good.
#pragma once

#include <cstddef>

namespace vexa {

// The memory of this process that is in RAM, in bytes; 0 when it cannot be determined.
std::size_t ResidentBytes();

// Threads: one at a time.
class MemoryTrimmer {
 public:
  // Growth below this is not worth the work.
  static constexpr std::size_t kMinGrowth = std::size_t{16} << 20;

  // How many calls an unsuccessful attempt is followed by before the next one.
  static constexpr int kCallsBetweenAttempts = 6;

  // To be called every few seconds: how often it is called bounds how often memory is given back, for which each arena
  // of the C library is locked for a moment. True when the process is larger by more than kMinGrowth than it was at its
  // smallest, so that freed memory was given back. Memory that is still in use then is tried again later.
  bool TrimAfterGrowth();

 private:
  std::size_t smallest_ = ResidentBytes();
  int calls_to_skip_ = 0;
};

}  // namespace vexa
