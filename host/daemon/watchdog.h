// The service manager's watchdog: it restarts the daemon when it hears nothing for the time in WatchdogSec= of the
// unit. It hears from this one only while requests are served.
#pragma once

#include <chrono>
#include <functional>
#include <optional>

#include "host/daemon/periodic_call.h"

namespace vexa::daemon {

// How long the service manager waits, from $WATCHDOG_USEC; none when it does not watch this process
// (sd_watchdog_enabled(3)).
std::optional<std::chrono::milliseconds> WatchdogTimeout();

// Reports "WATCHDOG=1" to the service manager on a thread that does nothing else: no file is written or synced there,
// so a slow disk does not look like a daemon that hangs.
class Watchdog {
 public:
  // `is_serving` is called four times within `timeout`. It gets a quarter of that time for its answer; a false one is
  // logged instead of reported.
  using IsServing = std::function<bool(std::chrono::milliseconds)>;
  Watchdog(std::chrono::milliseconds timeout, IsServing is_serving);
  // See PeriodicCall::Stop.
  bool Stop(std::chrono::milliseconds timeout) { return calls_.Stop(timeout); }

 private:
  PeriodicCall calls_;
};

}  // namespace vexa::daemon
