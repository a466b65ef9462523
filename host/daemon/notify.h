// Tells the service manager how far the daemon is (sd_notify(3), without its library).
#pragma once

#include <string_view>

namespace vexa::daemon {

// Sends `state` ("READY=1", "STOPPING=1") to the socket that $NOTIFY_SOCKET names. Nothing happens when there is none;
// a failure is ignored, since the manager's own time-out tells.
void NotifyServiceManager(std::string_view state);

}  // namespace vexa::daemon
