// A circuit breaker: keeps callers from waiting for a host that is known to be gone.
#pragma once

#include <chrono>
#include <random>
#include <string>
#include <unordered_map>

#include "host/base/mutex.h"

namespace vexa::transport {

// After two consecutive failures to connect to a host, the breaker opens: calls to the host pause. After the pause, one
// call, the probe, is let through; if it also fails to connect, the next pause is twice as long. A call that connects
// closes the breaker. The probe starts before the end of the pause when the host has sent a heartbeat that is newer
// than those known to the failed calls. Pauses are randomised, so that the hosts of a cluster do not all call a
// returning host at the same moment. Threads: any, at the same time.
class Breaker {
 public:
  using Clock = std::chrono::steady_clock;
  static constexpr int kFailuresToOpen = 2;
  static constexpr std::chrono::milliseconds kInitialBackoff{750};
  static constexpr std::chrono::milliseconds kMaxBackoff{5'000};
  static constexpr double kJitter = 0.25;  // of the pause, in either direction

  // How a call behaves during a pause.
  enum class CallPriority {
    kSkippable,  // may be refused: its result is not worth a wait
    kOrdinary,   // refused during a pause, but not while a probe is under way
    kAlways,     // never refused
  };
  struct Attempt {
    CallPriority priority = CallPriority::kSkippable;
    std::chrono::system_clock::time_point last_heartbeat{};  // of the host; the epoch when it is unknown
  };

  enum class Permit {
    kAllowed,
    kProbe,           // the one call that checks whether the host is back
    kAllowedBriefly,  // a call beside the probe or within the pause, which should not wait long for a connection
    kRefused,         // do not call
  };
  enum class Outcome {
    kConnected,     // regardless of what happened to the call afterwards
    kNotConnected,  // refused, unreachable, or no connection in time
    kUnknown,       // the call ended before that was known
  };

  Breaker();

  Permit Enter(const std::string& host_id, Clock::time_point now, const Attempt& attempt);
  Permit Enter(const std::string& host_id, Clock::time_point now) { return Enter(host_id, now, Attempt()); }
  // Every permit except kRefused must be reported once, with the `last_heartbeat` of its Attempt.
  void Report(const std::string& host_id, Permit permit, Outcome outcome, Clock::time_point now,
              std::chrono::system_clock::time_point last_heartbeat = {});

 private:
  struct State {
    int failures = 0;  // consecutive
    bool probing = false;
    std::chrono::milliseconds pause{0};  // before randomisation; 0: the breaker is closed
    Clock::time_point open_until;
    std::chrono::system_clock::time_point last_heartbeat;  // the newest one known to a failed call
  };

  void Open(State& state, Clock::time_point now) VEXA_REQUIRES(mutex_);

  Mutex mutex_;
  std::mt19937 random_ VEXA_GUARDED_BY(mutex_);
  std::unordered_map<std::string, State> hosts_ VEXA_GUARDED_BY(mutex_);  // those whose last call failed, by id
};

}  // namespace vexa::transport
