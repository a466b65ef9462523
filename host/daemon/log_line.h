// The final form of a log line before it leaves the process.
#pragma once

#include <climits>
#include <string>
#include <string_view>

namespace vexa::daemon {

// In bytes. Longer lines are cut: the system log drops datagrams that are too large.
inline constexpr std::size_t kMaxLogLine = 8 * 1024;

inline constexpr std::string_view kStderrPrefix = "vexad: ";
// Prefix, line and line feed fit into one write() that the system never splits, so that lines of several threads and
// processes do not tear each other.
inline constexpr std::size_t kMaxStderrLine = PIPE_BUF - kStderrPrefix.size() - 1;

// Returns `text` followed by " [request <id>]" unless the id is empty, at most `max_bytes` together: "…" replaces the
// end of a longer text. Control characters and bytes that are not UTF-8 become \n, \t, \xHH or \uHHHH, so that nothing
// from a caller can start a line of its own, control a terminal or change the order in which a line is displayed. The
// beginning is unchanged, because log watchers match it. Requires max_bytes to be at least twice the length of the id.
std::string MakeLogLine(std::string_view text, std::string_view request_id, std::size_t max_bytes = kMaxLogLine);

enum class LogTarget { kSyslog, kStderr, kBoth };

// Where the process's log lines go; kSyslog by default.
void SetLogTarget(LogTarget target);
LogTarget CurrentLogTarget();

}  // namespace vexa::daemon
