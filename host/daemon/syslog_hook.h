// The way of the daemon's log lines out of the process.
#pragma once

#include <chrono>

namespace vexa::daemon {

// Waits until the lines logged so far have been written, at most for `timeout`. Call it before the process ends.
// Threads: any.
void FlushLog(std::chrono::milliseconds timeout);

}  // namespace vexa::daemon
