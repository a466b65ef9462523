// Cluster control: the cluster log, which shows users what happened to their guests.
#pragma once

#include <string>

#pragma GCC visibility push(default)

namespace VexaCCC {

enum CLOG_PRIORITY : int {
  CLOG_PRIORITY_FAILURE = 1,
  CLOG_PRIORITY_SUCCESS = 3,
};

// Adds a line in the name of `user`. Whatever the values hold, the line stays one line of readable text. A failure is
// reported in the system log only.
// Threads: any, at the same time.
void ClusterLogAdd(const std::string& user, CLOG_PRIORITY priority, const char* format, ...)
    __attribute__((format(printf, 3, 4)));

}  // namespace VexaCCC

#pragma GCC visibility pop
