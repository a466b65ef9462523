// Reports the daemon's progress to the service manager (sd_notify(3)).
//
// Written by hand because the protocol is a single datagram, and the daemon needs nothing else from libsystemd.
#pragma once

#include <string_view>

namespace vexa::daemon {

// Sends `state` ("READY=1", "STOPPING=1") to the socket that $NOTIFY_SOCKET names. Does nothing when that is not set. A
// failure is ignored, because the manager notices it by its own time-out.
void NotifyServiceManager(std::string_view state);

}  // namespace vexa::daemon
