// Lines of the cluster log that stand in tables. For this library only.
#pragma once

#include <string>

#include "webapi/platform/ccc_log.h"

namespace VexaVirtualization {

// What fills the placeholders of a line, in order.
enum class Fill { kNoLine, kGuest, kGuestAndHost, kOperation };

struct Line {
  const char* format = nullptr;
  Fill fill = Fill::kNoLine;
};

// Whether a format asks for the texts that it is given, each with %s, and for nothing else.
constexpr bool IsSound(const Line& line) {
  if (line.fill == Fill::kNoLine) return line.format == nullptr;
  int placeholders = 0;
  for (const char* c = line.format; *c; ++c) {
    if (*c != '%') continue;
    if (*++c != 's') return false;
    ++placeholders;
  }
  return placeholders == (line.fill == Fill::kGuestAndHost ? 2 : 1);
}

// The values of a line's placeholders.
struct LineValues {
  std::string guest;
  std::string host;
  std::string operation;
};

// Writes the line, if it is one, to the cluster log. It must be sound.
void Tell(const std::string& user, VexaCCC::CLOG_PRIORITY priority, const Line& line, const LineValues& values);

}  // namespace VexaVirtualization
