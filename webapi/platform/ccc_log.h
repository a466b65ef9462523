// Cluster control: the cluster log, which shows users what happened to their guests.
#pragma once

#include <string>

#pragma GCC visibility push(default)

namespace VexaCCC {

enum CLOG_PRIORITY : int {
  CLOG_PRIORITY_FAILURE = 1,
  CLOG_PRIORITY_SUCCESS = 3,
};

// Adds a line in the name of `user`. Control characters in the values are replaced, so that it stays one readable line.
// A failure is only reported in the system log.
// Threads: any number, concurrently.
void ClusterLogAdd(const std::string& user, CLOG_PRIORITY priority, const char* format, ...)
    __attribute__((format(printf, 3, 4)));

}  // namespace VexaCCC

#pragma GCC visibility pop
