#include "host/store/map_gate.h"

#include <utility>

namespace vexa::store {

MapGate::Pass::Pass(Pass&& other) noexcept : gate_(std::exchange(other.gate_, nullptr)), holder_(other.holder_) {}

MapGate::Pass& MapGate::Pass::operator=(Pass&& other) noexcept {
  if (this != &other) {
    Leave();
    gate_ = std::exchange(other.gate_, nullptr);
    holder_ = other.holder_;
  }
  return *this;
}

void MapGate::Pass::Leave() {
  if (gate_ != nullptr) std::exchange(gate_, nullptr)->Leave(holder_);
}

MapGate::Pass MapGate::Enter() {
  const std::thread::id self = std::this_thread::get_id();
  std::unique_lock lock(mutex_);
  changed_.wait(lock, [&] { return !closed_ && (closing_ == 0 || inside_.contains(self)); });
  ++inside_[self];
  return Pass(this, self);
}

bool MapGate::ThisThreadIsInside() {
  const std::lock_guard lock(mutex_);
  return inside_.contains(std::this_thread::get_id());
}

void MapGate::Leave(std::thread::id holder) {
  const std::lock_guard lock(mutex_);
  const auto found = inside_.find(holder);
  if (--found->second > 0) return;
  inside_.erase(found);
  if (inside_.empty()) changed_.notify_all();
}

bool MapGate::Close(std::chrono::milliseconds patience) {
  const auto alone = [&] { return !closed_ && inside_.empty(); };
  std::unique_lock lock(mutex_);
  const bool waits_for_itself = inside_.contains(std::this_thread::get_id());
  if (!alone() && !waits_for_itself && patience.count() > 0) {
    ++closing_;
    changed_.wait_for(lock, patience, alone);
    --closing_;
  }
  const bool won = alone();
  if (won) {
    closed_ = true;
  } else {
    changed_.notify_all();  // the threads that were held back
  }
  return won;
}

void MapGate::OpenAgain() {
  const std::lock_guard lock(mutex_);
  closed_ = false;
  changed_.notify_all();
}

}  // namespace vexa::store
