#include "host/base/byte_text.h"

#include <fmt/format.h>

namespace vexa {

std::string ByteText(std::uint64_t bytes) {
  constexpr std::uint64_t kStep = 1024;
  if (bytes < kStep) return fmt::format("{} {}", bytes, bytes == 1 ? "byte" : "bytes");
  constexpr const char* kUnits[] = {"KiB", "MiB", "GiB", "TiB", "PiB", "EiB"};
  std::size_t unit = 0;
  std::uint64_t whole = bytes / kStep;
  std::uint64_t rest = bytes % kStep;
  for (; whole >= kStep; ++unit) {
    rest = whole % kStep;
    whole /= kStep;
  }
  return fmt::format("{}.{} {}", whole, rest * 10 / kStep, kUnits[unit]);
}

}  // namespace vexa
