#include "host/guests/shut_downs.h"

#include <algorithm>

#include "host/base/guarded.h"

namespace vexa::guests {

ShutDowns::ShutDowns(ShutDownsOptions options) : options_(std::move(options)), thread_([this] { Run(); }) {}

ShutDowns::~ShutDowns() {
  {
    const std::lock_guard lock(mutex_);
    stop_ = true;
  }
  wake_.notify_all();
  thread_.join();
  std::unique_lock lock(mutex_);
  ended_.wait(lock, [this] { return calls_ == 0; });
}

void ShutDowns::Begin(const std::string& guest_id) {
  const Clock::time_point now = Clock::now();
  const std::lock_guard lock(mutex_);
  Pending& pending = pending_[guest_id];
  pending.next = now + options_.press_again;
  pending.end = now + options_.wait;
  pending.number = ++begun_;
  pending.is_called = false;
  wake_.notify_all();
}

void ShutDowns::End(const std::string& guest_id) {
  const std::lock_guard lock(mutex_);
  pending_.erase(guest_id);
}

bool ShutDowns::IsUnderWay(const std::string& guest_id) const {
  const std::lock_guard lock(mutex_);
  return pending_.contains(guest_id);
}

bool ShutDowns::Stop(std::chrono::milliseconds patience) {
  std::unique_lock lock(mutex_);
  stop_ = true;
  wake_.notify_all();
  return ended_.wait_for(lock, patience, [this] { return calls_ == 0; });
}

void ShutDowns::Run() {
  std::unique_lock lock(mutex_);
  while (!stop_) {
    const auto is_later = [](const auto& a, const auto& b) { return a.second.next < b.second.next; };
    const auto due = std::min_element(pending_.begin(), pending_.end(), is_later);
    if (due == pending_.end()) {
      wake_.wait(lock);
      continue;
    }
    const Clock::time_point now = Clock::now();
    // A copy: it may end during the wait.
    const Clock::time_point next = due->second.next;
    if (now < next) {
      wake_.wait_until(lock, next);
      continue;
    }
    Pending& pending = due->second;
    pending.next = std::min(now + options_.press_again, std::max(pending.end, now));
    const bool is_over = now >= pending.end;
    if (pending.is_called && !is_over) continue;
    const std::string guest_id = due->first;
    const std::uint64_t number = pending.number;
    pending.is_called = true;
    if (is_over) pending_.erase(due);
    ++calls_;
    Guarded("The shut-down of a guest", [&] {
      try {
        std::thread([this, guest_id, number, is_over] { Call(guest_id, number, is_over); }).detach();
      } catch (...) {
        --calls_;
        const auto left = pending_.find(guest_id);
        if (left != pending_.end()) left->second.is_called = false;
        throw;
      }
    });
  }
}

void ShutDowns::Call(const std::string& guest_id, std::uint64_t number, bool is_over) {
  bool goes_on = true;
  Guarded("The shut-down of a guest", [&] {
    if (is_over) {
      options_.on_given_up(guest_id);
    } else {
      goes_on = options_.press(guest_id);
    }
  });
  const std::lock_guard lock(mutex_);
  const auto pressed = pending_.find(guest_id);
  if (pressed != pending_.end() && pressed->second.number == number) {
    pressed->second.is_called = false;
    if (!goes_on) pending_.erase(pressed);
  }
  --calls_;
  ended_.notify_all();
}

}  // namespace vexa::guests
