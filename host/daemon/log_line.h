// The final form of a log line before it leaves the process.
#pragma once

#include <string>
#include <string_view>

namespace vexa::daemon {

// In bytes. Longer lines are cut: the system log drops datagrams that are too large.
inline constexpr std::size_t kMaxLogLine = 8 * 1024;

// `text` cut to kMaxLogLine, with control characters as \n, \t or \xNN, so that nothing from a caller can start a line
// of its own or control a terminal; then " [request <id>]" unless the id is empty. The beginning is unchanged, because
// log watchers match it.
std::string MakeLogLine(std::string_view text, std::string_view request_id);

enum class LogTarget { kSyslog, kStderr, kBoth };

// Where the process's log lines go; kSyslog by default.
void SetLogTarget(LogTarget target);
LogTarget CurrentLogTarget();

}  // namespace vexa::daemon
