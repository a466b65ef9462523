#include "host/guests/shut_downs.h"

#include <algorithm>

#include "host/base/run_logging_exceptions.h"

namespace vexa::guests {

ShutDowns::ShutDowns(ShutDownsOptions options) : options_(std::move(options)), thread_([this] { Run(); }) {}

ShutDowns::~ShutDowns() {
  {
    const MutexLock lock(mutex_);
    stop_ = true;
  }
  wake_.NotifyAll();
  thread_.join();
  const MutexLock lock(mutex_);
  while (calls_ > 0) ended_.Wait(mutex_);
}

void ShutDowns::Begin(const std::string& guest_id) {
  const Clock::time_point now = Clock::now();
  const MutexLock lock(mutex_);
  Pending& pending = pending_[guest_id];
  pending.next = now + options_.press_interval;
  pending.end = now + options_.wait;
  pending.number = ++last_number_;
  pending.is_call_in_progress = false;
  wake_.NotifyAll();
}

void ShutDowns::End(const std::string& guest_id) {
  const MutexLock lock(mutex_);
  pending_.erase(guest_id);
}

bool ShutDowns::IsInProgress(const std::string& guest_id) const {
  const MutexLock lock(mutex_);
  return pending_.contains(guest_id);
}

bool ShutDowns::Stop(std::chrono::milliseconds timeout) {
  const Clock::time_point end = Clock::now() + timeout;
  const MutexLock lock(mutex_);
  stop_ = true;
  wake_.NotifyAll();
  while (calls_ > 0 && ended_.WaitUntil(mutex_, end)) {
  }
  return calls_ == 0;
}

void ShutDowns::Run() {
  const MutexLock lock(mutex_);
  while (!stop_) {
    const auto is_later = [](const auto& a, const auto& b) { return a.second.next < b.second.next; };
    const auto due = std::min_element(pending_.begin(), pending_.end(), is_later);
    if (due == pending_.end()) {
      wake_.Wait(mutex_);
      continue;
    }
    const Clock::time_point now = Clock::now();
    // A copy: it may end during the wait.
    const Clock::time_point next = due->second.next;
    if (now < next) {
      wake_.WaitUntil(mutex_, next);
      continue;
    }
    Pending& pending = due->second;
    pending.next = std::min(now + options_.press_interval, std::max(pending.end, now));
    const bool is_over = now >= pending.end;
    if (pending.is_call_in_progress && !is_over) continue;
    const std::string guest_id = due->first;
    const std::uint64_t number = pending.number;
    pending.is_call_in_progress = true;
    if (is_over) pending_.erase(due);
    ++calls_;
    RunLoggingExceptions(
        "The shut-down of a guest", [&]() VEXA_NO_THREAD_SAFETY_ANALYSIS {  // runs immediately, under the lock
          try {
            std::thread([this, guest_id, number, is_over] { Call(guest_id, number, is_over); }).detach();
          } catch (...) {
            --calls_;
            const auto left = pending_.find(guest_id);
            if (left != pending_.end()) left->second.is_call_in_progress = false;
            throw;
          }
        });
  }
}

void ShutDowns::Call(const std::string& guest_id, std::uint64_t number, bool is_over) {
  bool is_still_running = true;
  RunLoggingExceptions("The shut-down of a guest", [&] {
    if (is_over) {
      options_.on_given_up(guest_id);
    } else {
      is_still_running = options_.press(guest_id);
    }
  });
  const MutexLock lock(mutex_);
  const auto pressed = pending_.find(guest_id);
  if (pressed != pending_.end() && pressed->second.number == number) {
    pressed->second.is_call_in_progress = false;
    if (!is_still_running) pending_.erase(pressed);
  }
  --calls_;
  ended_.NotifyAll();
}

}  // namespace vexa::guests
