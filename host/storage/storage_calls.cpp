#include "host/storage/storage_calls.h"

#include "host/base/guarded.h"

#include <algorithm>
#include <condition_variable>
#include <list>
#include <mutex>
#include <system_error>
#include <thread>
#include <utility>

namespace vexa::guests {

using Clock = std::chrono::steady_clock;

struct BoundedCalls::Run {
  std::string name;
  Clock::time_point deadline;
  bool has_returned = false;
};

struct BoundedCalls::State {
  std::mutex mutex;
  std::condition_variable changed;
  std::list<std::shared_ptr<Run>> running;
  bool is_stopped = false;
};

BoundedCalls::BoundedCalls(std::chrono::milliseconds deadline)
    : deadline_(deadline), state_(std::make_shared<State>()) {}

BoundedCalls::~BoundedCalls() { Stop(); }

BoundedCalls::Call BoundedCalls::Begin(const std::string& name, std::function<void()> call) {
  const Clock::time_point now = Clock::now();
  Call begun;
  begun.state_ = state_;
  begun.deadline_ = now + deadline_;
  const auto run = std::make_shared<Run>(Run{name, begun.deadline_});
  const std::lock_guard lock(state_->mutex);
  const bool hangs = std::ranges::any_of(
      state_->running, [&](const auto& other) { return other->name == name && other->deadline <= now; });
  if (hangs || state_->is_stopped) return begun;
  try {
    std::thread([state = state_, run, call = std::move(call)] {
      Guarded("A question to a file system", call);
      const std::lock_guard ended(state->mutex);
      run->has_returned = true;
      state->running.remove(run);
      state->changed.notify_all();
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
  std::unique_lock lock(state_->mutex);
  state_->changed.wait_until(lock, deadline_, [this] { return run_->has_returned || state_->is_stopped; });
  return run_->has_returned;
}

void BoundedCalls::Stop() {
  const std::lock_guard lock(state_->mutex);
  state_->is_stopped = true;
  state_->changed.notify_all();
}

}  // namespace vexa::guests
