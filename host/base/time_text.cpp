#include "host/base/time_text.h"

#include <array>
#include <ctime>

namespace vexa {

std::string FormatUtcTime(std::chrono::system_clock::time_point time) {
  const std::time_t seconds = std::chrono::system_clock::to_time_t(time);
  std::tm fields{};
  if (::gmtime_r(&seconds, &fields) == nullptr) return "an unknown time";
  std::array<char, 64> text{};
  const std::size_t size = std::strftime(text.data(), text.size(), "%Y-%m-%dT%H:%M:%SZ", &fields);
  return {text.data(), size};
}

std::int64_t ToUnixSeconds(std::chrono::system_clock::time_point time) {
  return std::chrono::duration_cast<std::chrono::seconds>(time.time_since_epoch()).count();
}

}  // namespace vexa
