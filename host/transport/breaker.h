// A circuit breaker: keeps callers from waiting for a host that is known to be gone.
#pragma once

#include <chrono>
#include <mutex>
#include <random>
#include <string>
#include <unordered_map>

namespace vexa::transport {

// After two consecutive failures to connect to a host, calls to it pause. After the pause, one call, the probe, is let
// through; if it also fails to connect, the next pause is twice as long. A call that connects ends all that. The probe
// starts before the end of the pause when the host has given a sign of life that is newer than those known to the
// failed calls. Pauses are randomised, so that the hosts of a cluster do not all come back at the same moment.
// Threads: any, at the same time.
class Breaker {
 public:
  using Clock = std::chrono::steady_clock;
  static constexpr int kFailuresToOpen = 2;
  static constexpr std::chrono::milliseconds kFirstPause{750};
  static constexpr std::chrono::milliseconds kLongestPause{5'000};
  static constexpr double kSpread = 0.25;  // of the pause, in either direction

  // How a call behaves during a pause.
  enum class Weight {
    kRefusable,  // may be refused: its result is not worth a wait
    kOrdinary,   // refused during a pause, but not while a probe is under way
    kMustGo,     // never refused
  };
  struct Attempt {
    Weight weight = Weight::kRefusable;
    std::chrono::system_clock::time_point sign_of_life{};  // the host's last one; the epoch when it is unknown
  };

  enum class Permit {
    kGo,
    kProbe,    // the one call that checks whether the host is back
    kTry,      // a call beside the probe or within the pause, which should not wait long for a connection
    kRefused,  // do not call
  };
  enum class Outcome {
    kConnected,     // whatever happened to the call afterwards
    kNotConnected,  // refused, unreachable, or no connection in time
    kUnknown,       // the call ended before that was known
  };

  Breaker();

  Permit Enter(const std::string& host_id, Clock::time_point now, const Attempt& attempt);
  Permit Enter(const std::string& host_id, Clock::time_point now) { return Enter(host_id, now, Attempt()); }
  // Every permit except kRefused must be reported once, with the sign of life that the call began with.
  void Report(const std::string& host_id, Permit permit, Outcome outcome, Clock::time_point now,
              std::chrono::system_clock::time_point sign_of_life = {});

 private:
  struct State {
    int failures = 0;  // consecutive
    bool probing = false;
    std::chrono::milliseconds pause{0};  // before randomisation; 0: closed
    Clock::time_point open_until;
    std::chrono::system_clock::time_point sign_of_life;  // the newest one that a failed call began with
  };

  void Open(State& state, Clock::time_point now);

  std::mutex mutex_;
  std::mt19937 random_;                           // under mutex_
  std::unordered_map<std::string, State> hosts_;  // under mutex_; hosts whose last call failed
};

}  // namespace vexa::transport
