// The lanes of the daemon: how many threads each has, and how much of it one caller can take.
#pragma once

#include "host/base/lane.h"
#include "host/daemon/config.h"

namespace vexa::daemon {

// Users' methods that only read, so a caller whose commits hang can still read.
LaneOptions QuickLane();
// Users' methods that may wait.
LaneOptions LongLane(const Config& config);
// Calls of other hosts that may wait: users cannot take their room.
LaneOptions HostLane(const Config& config);
// Calls of other hosts that only read, so a user, or a host, whose other calls hang can still read.
LaneOptions QuickHostLane(const Config& config);
// Calls of this host to itself. Each caller waits on a thread of another lane, so those lanes limit their number.
LaneOptions LocalLane(const Config& config);
// The items of compound requests. The requests wait for their items on threads of the lanes "hosts" and "local": if the
// items ran in those lanes too, compound requests that take all threads would deadlock.
LaneOptions ItemLane(const Config& config);

}  // namespace vexa::daemon
