// The last form of a log line, before it leaves the process.
#pragma once

#include <string>
#include <string_view>

namespace vexa::daemon {

// Longer lines are cut: a datagram to the system log is dropped when it is too large.
inline constexpr std::size_t kMaxLogLine = 8 * 1024;

// `text` cut to kMaxLogLine, with control characters as \n, \t or \xNN, so that nothing a caller sends can start a line
// of its own or drive a terminal; then " [request <id>]" unless the id is empty. The beginning stays as it is: log
// watchers key on it.
std::string MakeLogLine(std::string_view text, std::string_view request_id);

enum class LogTarget { kSyslog, kStderr, kBoth };

// Where the process's log lines go; kSyslog until it is called.
void SetLogTarget(LogTarget target);
LogTarget CurrentLogTarget();

}  // namespace vexa::daemon
