#include "host/storage/bounded_calls.h"

#include "host/base/mutex.h"
#include "host/base/run_logging_exceptions.h"

#include <algorithm>
#include <list>
#include <system_error>
#include <thread>
#include <utility>

namespace vexa::storage {

using Clock = std::chrono::steady_clock;

struct BoundedCalls::Run {
  std::string name;
  Clock::time_point deadline;
  bool has_returned = false;  // under State::mutex
};

struct BoundedCalls::State {
  Mutex mutex;
  ConditionVariable changed;
  std::list<std::shared_ptr<Run>> running VEXA_GUARDED_BY(mutex);
  bool is_stopped VEXA_GUARDED_BY(mutex) = false;
};

BoundedCalls::BoundedCalls(std::chrono::milliseconds timeout) : timeout_(timeout), state_(std::make_shared<State>()) {}

BoundedCalls::~BoundedCalls() { Stop(); }

BoundedCalls::Call BoundedCalls::Begin(const std::string& name, std::function<void()> call) {
  const Clock::time_point now = Clock::now();
  Call begun;
  begun.state_ = state_;
  begun.deadline_ = now + timeout_;
  const auto run = std::make_shared<Run>(Run{name, begun.deadline_});
  const MutexLock lock(state_->mutex);
  const bool hangs = std::ranges::any_of(
      state_->running, [&](const auto& other) { return other->name == name && other->deadline <= now; });
  if (hangs || state_->is_stopped) return begun;
  try {
    std::thread([state = state_, run, call = std::move(call)] {
      RunLoggingExceptions("A file system probe", call);
      const MutexLock ended(state->mutex);
      run->has_returned = true;
      state->running.remove(run);
      state->changed.NotifyAll();
    }).detach();
  } catch (const std::system_error&) {
    return begun;  // no thread available now
  }
  state_->running.push_back(run);
  begun.run_ = run;
  return begun;
}

bool BoundedCalls::Call::Wait() {
  if (!run_) return false;
  const MutexLock lock(state_->mutex);
  while (!run_->has_returned && !state_->is_stopped && state_->changed.WaitUntil(state_->mutex, deadline_)) {
  }
  return run_->has_returned;
}

void BoundedCalls::Stop() {
  const MutexLock lock(state_->mutex);
  state_->is_stopped = true;
  state_->changed.NotifyAll();
}

}  // namespace vexa::storage
