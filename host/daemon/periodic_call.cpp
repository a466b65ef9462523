#include "host/daemon/periodic_call.h"

#include <utility>

#include "host/base/background_thread.h"
#include "host/base/mutex.h"

namespace vexa::daemon {

// Shared with the thread, which may outlive the object when a call does not return.
struct PeriodicCall::State {
  Mutex mutex;
  ConditionVariable changed;
  bool is_stopping VEXA_GUARDED_BY(mutex) = false;
  bool has_ended VEXA_GUARDED_BY(mutex) = false;

  bool IsStoppedWithin(std::chrono::milliseconds interval) {
    const auto end = std::chrono::steady_clock::now() + interval;
    const MutexLock lock(mutex);
    while (!is_stopping && changed.WaitUntil(mutex, end)) {
    }
    return is_stopping;
  }
};

PeriodicCall::PeriodicCall(std::chrono::milliseconds interval, std::function<void()> call)
    : state_(std::make_shared<State>()) {
  StartThreadBlockingSignals([state = state_, interval, call = std::move(call)] {
    while (!state->IsStoppedWithin(interval)) call();
    const MutexLock lock(state->mutex);
    state->has_ended = true;
    state->changed.NotifyAll();
  }).detach();
}

PeriodicCall::~PeriodicCall() {
  const MutexLock lock(state_->mutex);
  if (state_->is_stopping) return;
  state_->is_stopping = true;
  state_->changed.NotifyAll();
  while (!state_->has_ended) state_->changed.Wait(state_->mutex);
}

bool PeriodicCall::Stop(std::chrono::milliseconds timeout) {
  const auto end = std::chrono::steady_clock::now() + timeout;
  const MutexLock lock(state_->mutex);
  state_->is_stopping = true;
  state_->changed.NotifyAll();
  while (!state_->has_ended && state_->changed.WaitUntil(state_->mutex, end)) {
  }
  return state_->has_ended;
}

}  // namespace vexa::daemon
