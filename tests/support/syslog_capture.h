// Keeps what a test program logs to syslog in memory.
//
// In every program that links vexa_syslog_capture, this replaces syslog(3) and vsyslog(3), and the functions that
// fortified builds call in their place; openlog, closelog and setlogmask still work but have no effect on the lines.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace vexa::test {

struct SyslogLine {
  int priority = 0;  // as given by the caller: the facility and the level
  std::string text;  // formatted, "%m" included

  int level() const { return priority & 7; }  // LOG_ERR, LOG_INFO, …
};

// Threads: any, at the same time, for all three.

// The lines so far, oldest first. They are kept.
std::vector<SyslogLine> CapturedSyslog();
// Discards the lines; call it at the start of a test that reads them.
void ClearCapturedSyslog();
// Whether a line contains `text`.
bool SyslogContains(std::string_view text);

}  // namespace vexa::test
