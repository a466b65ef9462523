// What a test program logs to syslog, kept in memory instead.
//
// The functions syslog(3) and vsyslog(3), and the ones that fortified builds call in their place, are replaced in every
// program that links vexa_syslog_capture; openlog, closelog and setlogmask keep doing what they do, and matter no more.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace vexa::test {

struct SyslogLine {
  int priority = 0;  // as the caller gave it: the facility and the level
  std::string text;  // formatted, "%m" included

  int level() const { return priority & 7; }  // LOG_ERR, LOG_INFO, …
};

// Threads: any, at the same time, for all three.

// The lines so far, oldest first. They stay.
std::vector<SyslogLine> CapturedSyslog();
// Forgets the lines; call it at the start of a test that looks at them.
void ClearCapturedSyslog();
// Whether a line contains `text`.
bool SyslogContains(std::string_view text);

}  // namespace vexa::test
