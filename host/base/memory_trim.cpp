#include "host/base/memory_trim.h"

#include <malloc.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>

namespace vexa {

std::size_t ResidentBytes() {
  std::ifstream file("/proc/self/statm");  // pages: the size of the address space, those in RAM, … (proc(5))
  std::size_t size = 0;
  std::size_t resident = 0;
  if (!(file >> size >> resident)) return 0;
  return resident * static_cast<std::size_t>(::sysconf(_SC_PAGESIZE));
}

bool MemoryTrimmer::TrimAfterGrowth() {
  const std::size_t resident = ResidentBytes();
  smallest_ = std::min(smallest_, resident);
  if (resident <= smallest_ + kMinGrowth) return false;
  if (calls_to_skip_ > 0) {
    --calls_to_skip_;
    return false;
  }
  ::malloc_trim(0);
  if (ResidentBytes() > smallest_ + kMinGrowth) calls_to_skip_ = kCallsBetweenAttempts;
  return true;
}

}  // namespace vexa
