#include "host/daemon/watchdog.h"

#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <cstdlib>
#include <string_view>
#include <utility>

#include "host/daemon/notify.h"

namespace vexa::daemon {
namespace {

using std::chrono::milliseconds;

std::optional<long long> NumberInEnvironment(const char* name) {
  // NOLINTNEXTLINE(concurrency-mt-unsafe): no thread changes the environment.
  const char* const value = std::getenv(name);
  if (value == nullptr) return std::nullopt;
  const std::string_view text = value;
  long long number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
  return number;
}

// A check and the pause before it take at most half of the timeout, so a late check does not end the daemon.
milliseconds Quarter(milliseconds timeout) { return std::max(timeout / 4, milliseconds(1)); }

}  // namespace

std::optional<milliseconds> WatchdogTimeout() {
  const std::optional<long long> microseconds = NumberInEnvironment("WATCHDOG_USEC");
  if (!microseconds || *microseconds <= 0) return std::nullopt;
  // NOLINTNEXTLINE(concurrency-mt-unsafe): no thread changes the environment.
  if (std::getenv("WATCHDOG_PID") != nullptr && NumberInEnvironment("WATCHDOG_PID") != ::getpid()) return std::nullopt;
  return std::chrono::ceil<milliseconds>(std::chrono::microseconds(*microseconds));
}

Watchdog::Watchdog(milliseconds timeout, IsServing is_serving)
    : calls_(Quarter(timeout), [time = Quarter(timeout), is_serving = std::move(is_serving)] {
        if (is_serving(time)) return NotifyServiceManager("WATCHDOG=1");
        ::syslog(LOG_CRIT, "No request is being served. The service manager will restart this host if that lasts.");
      }) {}

}  // namespace vexa::daemon
