// Shared by the tests of guest states, links and high-availability groups.
#pragma once

#include <algorithm>
#include <cctype>
#include <string>
#include <string_view>
#include <vector>

#include "tests/unit/webapi/host_fixture.h"

namespace vexa::test {

// A line of the system log without the position: "utils:12 text" becomes "utils: text". Unchanged without one.
inline std::string WithoutPosition(const std::string& line) {
  const std::size_t colon = line.find(':');
  if (colon == std::string::npos) return line;
  const std::size_t end = line.find_first_not_of("0123456789", colon + 1);
  if (end == std::string::npos || end == colon + 1 || line[end] != ' ') return line;
  return line.substr(0, colon + 1) + line.substr(end);
}

class StateLibrary : public HostLibrary {
 protected:
  // The lines since the last look are these, all of error priority.
  static void ExpectLines(const std::vector<std::string>& expected) {
    std::vector<std::string> lines;
    for (const SyslogLine& line : CapturedSyslog()) {
      EXPECT_EQ(line.priority, LOG_ERR);
      lines.push_back(WithoutPosition(line.text));
    }
    EXPECT_EQ(lines, expected);
    ClearCapturedSyslog();
  }
};

}  // namespace vexa::test
