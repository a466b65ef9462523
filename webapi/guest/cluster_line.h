// Lines of the cluster log, for use in tables. Internal to this library.
#pragma once

#include <string>

#include "webapi/platform/ccc_log.h"

namespace VexaVirtualization {

// Which values a line's placeholders take, in this order. kNoLine: nothing is logged.
enum class Placeholders { kNoLine, kGuest, kGuestAndHost, kOperation };

struct Line {
  const char* format = nullptr;
  Placeholders placeholders = Placeholders::kNoLine;
};

// Whether a format has exactly one %s for each of its values and no other placeholder. Checked at compile time.
constexpr bool HasMatchingPlaceholders(const Line& line) {
  if (line.placeholders == Placeholders::kNoLine) return line.format == nullptr;
  int placeholders = 0;
  for (const char* c = line.format; *c; ++c) {
    if (*c != '%') continue;
    if (*++c != 's') return false;
    ++placeholders;
  }
  return placeholders == (line.placeholders == Placeholders::kGuestAndHost ? 2 : 1);
}

// The values for a line's placeholders.
struct LineValues {
  std::string guest;
  std::string host;
  std::string operation;
};

// Writes the line to the cluster log in the name of `user`; does nothing for kNoLine. The placeholders must match (see
// HasMatchingPlaceholders).
void AddToClusterLog(const std::string& user, VexaCCC::CLOG_PRIORITY priority, const Line& line,
                     const LineValues& values);

}  // namespace VexaVirtualization
