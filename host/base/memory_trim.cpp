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
  const bool has_grown = resident > settled_ + kMinGrowth;
  if (has_grown) ::malloc_trim(0);
  settled_ = has_grown ? ResidentBytes() : std::min(settled_, resident);
  return has_grown;
}

}  // namespace vexa
