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
  const MutexLock lock(mutex_);
  while (MustWait(self)) changed_.Wait(mutex_);
  ++passes_by_thread_[self];
  return Pass(this, self);
}

std::optional<MapGate::Pass> MapGate::TryEnter() {
  const std::thread::id self = std::this_thread::get_id();
  const MutexLock lock(mutex_);
  if (MustWait(self)) return std::nullopt;
  ++passes_by_thread_[self];
  return Pass(this, self);
}

void MapGate::Leave(std::thread::id holder) {
  const MutexLock lock(mutex_);
  const auto found = passes_by_thread_.find(holder);
  if (--found->second > 0) return;
  passes_by_thread_.erase(found);
  if (passes_by_thread_.empty()) changed_.NotifyAll();
}

bool MapGate::Close(std::chrono::milliseconds timeout) {
  const auto end = std::chrono::steady_clock::now() + timeout;
  const MutexLock lock(mutex_);
  const bool waits_for_itself = passes_by_thread_.contains(std::this_thread::get_id());
  if (!IsFree() && !waits_for_itself && timeout.count() > 0) {
    ++closing_;
    while (!IsFree() && changed_.WaitUntil(mutex_, end)) {
    }
    --closing_;
  }
  const bool has_exclusive_access = IsFree();
  if (has_exclusive_access) {
    closed_ = true;
  } else {
    changed_.NotifyAll();  // the threads that were held back
  }
  return has_exclusive_access;
}

void MapGate::Reopen() {
  const MutexLock lock(mutex_);
  closed_ = false;
  changed_.NotifyAll();
}

}  // namespace vexa::store
