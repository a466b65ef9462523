#include "host/daemon/log_line.h"

#include <atomic>
#include <cstdio>

namespace vexa::daemon {
namespace {

std::atomic<LogTarget> log_target{LogTarget::kSyslog};

void AppendEscaped(std::string& line, char c) {
  const auto byte = static_cast<unsigned char>(c);
  if (c == '\n') {
    line += "\\n";
  } else if (c == '\t') {
    line += "\\t";
  } else if (byte < 0x20 || byte == 0x7F) {
    char buffer[8];
    std::snprintf(buffer, sizeof buffer, "\\x%02X", byte);
    line += buffer;
  } else {
    line += c;
  }
}

}  // namespace

std::string MakeLogLine(std::string_view text, std::string_view request_id) {
  constexpr std::string_view kEllipsis = "…";
  std::string line;
  for (const char c : text) {
    AppendEscaped(line, c);
    if (line.size() <= kMaxLogLine) continue;
    std::size_t end = kMaxLogLine;
    // Never cut within a character: continuation bytes begin with the bits 10.
    while (end > 0 && (static_cast<unsigned char>(line[end]) & 0xC0) == 0x80) --end;
    line.resize(end);
    line += kEllipsis;
    break;
  }
  if (!request_id.empty()) line.append(" [request ").append(request_id).append("]");
  return line;
}

void SetLogTarget(LogTarget target) { log_target = target; }

LogTarget CurrentLogTarget() { return log_target; }

}  // namespace vexa::daemon
