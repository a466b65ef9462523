#include "host/guests/shut_downs.h"

#include <algorithm>

namespace vexa::guests {

ShutDowns::ShutDowns(ShutDownsOptions options) : options_(std::move(options)), thread_([this] { Run(); }) {}

ShutDowns::~ShutDowns() {
  {
    const std::lock_guard lock(mutex_);
    stop_ = true;
  }
  wake_.notify_all();
  thread_.join();
}

void ShutDowns::Begin(const std::string& guest_id) {
  const Clock::time_point now = Clock::now();
  const std::lock_guard lock(mutex_);
  pending_[guest_id] = {now + options_.press_again, now + options_.wait, ++begun_};
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

void ShutDowns::Run() {
  std::unique_lock lock(mutex_);
  while (!stop_) {
    const auto due = std::min_element(pending_.begin(), pending_.end(),
                                      [](const auto& a, const auto& b) { return a.second.next < b.second.next; });
    if (due == pending_.end()) {
      wake_.wait(lock);
      continue;
    }
    // A copy: it may end while this waits.
    const Clock::time_point next = due->second.next;
    if (Clock::now() < next) {
      wake_.wait_until(lock, next);
      continue;
    }
    const std::string guest_id = due->first;
    const std::uint64_t number = due->second.number;
    const bool is_over = Clock::now() >= due->second.end;
    due->second.next = std::min(Clock::now() + options_.press_again, std::max(due->second.end, Clock::now()));
    if (is_over) pending_.erase(due);
    lock.unlock();
    const bool goes_on = !is_over && options_.press(guest_id);
    if (is_over) options_.on_given_up(guest_id);
    lock.lock();
    if (is_over || goes_on) continue;
    const auto pressed = pending_.find(guest_id);
    if (pressed != pending_.end() && pressed->second.number == number) pending_.erase(pressed);
  }
}

}  // namespace vexa::guests
