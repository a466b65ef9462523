#include "host/transport/breaker.h"

#include <algorithm>

namespace vexa::transport {

Breaker::Breaker() : random_(std::random_device()()) {}

Breaker::Permit Breaker::Enter(const std::string& host_id, Clock::time_point now, const Attempt& attempt) {
  const std::lock_guard lock(mutex_);
  const auto found = hosts_.find(host_id);
  if (found == hosts_.end() || found->second.pause.count() == 0) return Permit::kGo;
  State& state = found->second;
  if (!state.probing && (now >= state.open_until || attempt.sign_of_life > state.sign_of_life)) {
    state.probing = true;
    return Permit::kProbe;
  }
  switch (attempt.weight) {
    case Weight::kRefusable:
      break;
    case Weight::kOrdinary:
      return state.probing ? Permit::kTry : Permit::kRefused;
    case Weight::kMustGo:
      return Permit::kTry;
  }
  return Permit::kRefused;
}

void Breaker::Report(const std::string& host_id, Permit permit, Outcome outcome, Clock::time_point now,
                     std::chrono::system_clock::time_point sign_of_life) {
  const std::lock_guard lock(mutex_);
  if (outcome == Outcome::kConnected) {
    hosts_.erase(host_id);
    return;
  }
  const auto found = hosts_.find(host_id);
  if (permit == Permit::kProbe && found != hosts_.end()) found->second.probing = false;
  if (outcome == Outcome::kUnknown) return;
  State& state = found == hosts_.end() ? hosts_[host_id] : found->second;
  ++state.failures;
  state.sign_of_life = std::max(state.sign_of_life, sign_of_life);
  // Calls that were under way when the pause began provide no new information.
  const bool open = state.pause.count() > 0;
  if (open ? permit == Permit::kProbe : state.failures >= kFailuresToOpen) Open(state, now);
}

void Breaker::Open(State& state, Clock::time_point now) {
  using std::chrono::milliseconds;
  state.pause = state.pause.count() == 0 ? kFirstPause : std::min(2 * state.pause, kLongestPause);
  std::uniform_real_distribution<double> spread(1 - kSpread, 1 + kSpread);
  const milliseconds spread_pause(
      static_cast<milliseconds::rep>(static_cast<double>(state.pause.count()) * spread(random_)));
  state.open_until = now + std::min(spread_pause, kLongestPause);
}

}  // namespace vexa::transport
