// A hypervisor's events, for tests to wait on.
#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <ostream>
#include <string>
#include <vector>

#include "host/hypervisor/hypervisor.h"

namespace vexa::hypervisor {

inline void PrintTo(GuestState state, std::ostream* out) { *out << GuestStateName(state); }
inline void PrintTo(FailureKind kind, std::ostream* out) { *out << FailureKindName(kind); }

// "ok", or the name of the kind of failure; for kFailed, with the text, which names the cause.
template <class T>
std::string OutcomeName(const Result<T, Failure>& outcome) {
  if (outcome.ok()) return "ok";
  const std::string kind(FailureKindName(outcome.error().kind()));
  return outcome.error().kind() == FailureKind::kFailed ? kind + ": " + outcome.error().ToString() : kind;
}

}  // namespace vexa::hypervisor

namespace vexa::test {

// Threads: any, at the same time.
class GuestEvents {
 public:
  using State = hypervisor::GuestState;

  // Connects `options` to this object, which must outlive the hypervisor.
  void Listen(hypervisor::HypervisorOptions& options) {
    options.on_event = [this](const hypervisor::GuestEvent& event) { Add(event); };
    options.on_reopened = [this] {
      const std::lock_guard lock(mutex_);
      ++reopenings_;
      changed_.notify_all();
    };
  }

  void Add(const hypervisor::GuestEvent& event) {
    const std::lock_guard lock(mutex_);
    events_.push_back(event);
    changed_.notify_all();
  }

  std::vector<State> Of(const std::string& id) const {
    const std::lock_guard lock(mutex_);
    return Find(id);
  }

  // The states of a guest once there are `count` of them; fewer when a minute has passed.
  std::vector<State> Await(const std::string& id, std::size_t count) const {
    std::unique_lock lock(mutex_);
    changed_.wait_for(lock, kTimeout, [&] { return Find(id).size() >= count; });
    return Find(id);
  }

  bool AwaitReopenings(int count) const {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, kTimeout, [&] { return reopenings_ >= count; });
  }
  int reopenings() const {
    const std::lock_guard lock(mutex_);
    return reopenings_;
  }

 private:
  static constexpr std::chrono::minutes kTimeout{1};

  std::vector<State> Find(const std::string& id) const {
    std::vector<State> states;
    for (const hypervisor::GuestEvent& event : events_) {
      if (event.id == id) states.push_back(event.state);
    }
    return states;
  }

  mutable std::mutex mutex_;
  mutable std::condition_variable changed_;
  std::vector<hypervisor::GuestEvent> events_;
  int reopenings_ = 0;
};

}  // namespace vexa::test
