#include "host/transport/breaker.h"

#include <algorithm>

namespace vexa::transport {

Breaker::Breaker() : random_(std::random_device()()) {}

Breaker::Permit Breaker::Enter(const std::string& host_id, Clock::time_point now, const Attempt& attempt) {
  const MutexLock lock(mutex_);
  const auto found = hosts_.find(host_id);
  if (found == hosts_.end() || found->second.pause.count() == 0) return Permit::kAllowed;
  State& state = found->second;
  if (!state.probing && (now >= state.open_until || attempt.last_heartbeat > state.last_heartbeat)) {
    state.probing = true;
    return Permit::kProbe;
  }
  switch (attempt.priority) {
    case CallPriority::kSkippable:
      break;
    case CallPriority::kOrdinary:
      return state.probing ? Permit::kAllowedBriefly : Permit::kRefused;
    case CallPriority::kAlways:
      return Permit::kAllowedBriefly;
  }
  return Permit::kRefused;
}

void Breaker::Report(const std::string& host_id, Permit permit, Outcome outcome, Clock::time_point now,
                     std::chrono::system_clock::time_point last_heartbeat) {
  const MutexLock lock(mutex_);
  if (outcome == Outcome::kConnected) {
    hosts_.erase(host_id);
    return;
  }
  const auto found = hosts_.find(host_id);
  if (permit == Permit::kProbe && found != hosts_.end()) found->second.probing = false;
  if (outcome == Outcome::kUnknown) return;
  State& state = found == hosts_.end() ? hosts_[host_id] : found->second;
  ++state.failures;
  state.last_heartbeat = std::max(state.last_heartbeat, last_heartbeat);
  // Calls that were under way when the pause began provide no new information.
  const bool open = state.pause.count() > 0;
  if (open ? permit == Permit::kProbe : state.failures >= kFailuresToOpen) Open(state, now);
}

void Breaker::Open(State& state, Clock::time_point now) {
  using std::chrono::milliseconds;
  state.pause = state.pause.count() == 0 ? kInitialBackoff : std::min(2 * state.pause, kMaxBackoff);
  std::uniform_real_distribution<double> jitter(1 - kJitter, 1 + kJitter);
  const milliseconds randomized_pause(
      static_cast<milliseconds::rep>(static_cast<double>(state.pause.count()) * jitter(random_)));
  state.open_until = now + std::min(randomized_pause, kMaxBackoff);
}

}  // namespace vexa::transport
