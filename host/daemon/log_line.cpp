#include "host/daemon/log_line.h"

#include <fmt/format.h>

#include <atomic>
#include <iterator>

#include "host/base/utf8.h"

namespace vexa::daemon {
namespace {

std::atomic<LogTarget> log_target{LogTarget::kSyslog};

// Appends the first character of `text`, escaped if necessary, and returns how many bytes of `text` it takes.
std::size_t AppendCharacter(std::string& line, std::string_view text) {
  const Character character = FirstCharacter(text);
  if (character.bytes == 0) {
    fmt::format_to(std::back_inserter(line), "\\x{:02X}", static_cast<unsigned char>(text[0]));
    return 1;
  }
  if (text[0] == '\n') {
    line += "\\n";
  } else if (text[0] == '\t') {
    line += "\\t";
  } else if (!IsControlCharacter(character.code_point)) {
    line.append(text.substr(0, character.bytes));
  } else if (character.code_point < 0x80) {
    fmt::format_to(std::back_inserter(line), "\\x{:02X}", character.code_point);
  } else {
    fmt::format_to(std::back_inserter(line), "\\u{:04X}", character.code_point);
  }
  return character.bytes;
}

}  // namespace

std::string MakeLogLine(std::string_view text, std::string_view request_id, std::size_t max_bytes) {
  constexpr std::string_view kEllipsis = "…";
  const std::string suffix = request_id.empty() ? "" : fmt::format(" [request {}]", request_id);
  max_bytes -= suffix.size();
  std::string line;
  std::size_t cut = 0;  // the longest prefix of `line` that leaves room for the ellipsis
  while (!text.empty()) {
    text.remove_prefix(AppendCharacter(line, text));
    if (line.size() > max_bytes) {
      line.resize(cut);
      line += kEllipsis;
      break;
    }
    if (line.size() + kEllipsis.size() <= max_bytes) cut = line.size();
  }
  return line + suffix;
}

void SetLogTarget(LogTarget target) { log_target = target; }

LogTarget CurrentLogTarget() { return log_target; }

}  // namespace vexa::daemon
