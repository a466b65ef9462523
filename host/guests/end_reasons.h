// What this process knows about why its guests end, until the end is stored. For host/guests/*.cpp only.
#pragma once

#include <map>
#include <mutex>
#include <optional>
#include <string>

#include "host/records/shutdown_reason.h"

namespace vexa::guests {

// Threads: any, at the same time.
class EndReasons {
 public:
  // The guest's end, when it comes, has this reason: it is about to be ended, or its start has failed.
  void Expect(const std::string& guest_id, cluster::ShutdownReason reason) {
    const std::lock_guard lock(mutex_);
    guests_[guest_id].expected = reason;
  }
  // It did not end after all.
  void Cancel(const std::string& guest_id) {
    const std::lock_guard lock(mutex_);
    if (const auto found = guests_.find(guest_id); found != guests_.end()) found->second.expected.reset();
  }
  // Its machine was seen running.
  void NoteRun(const std::string& guest_id) {
    const std::lock_guard lock(mutex_);
    guests_[guest_id].has_run = true;
  }
  // Its end is stored.
  void Forget(const std::string& guest_id) {
    const std::lock_guard lock(mutex_);
    guests_.erase(guest_id);
  }

  bool HasRun(const std::string& guest_id) const { return Find(guest_id).has_run; }
  std::optional<cluster::ShutdownReason> Expected(const std::string& guest_id) const { return Find(guest_id).expected; }

  // Why a guest that is off now has ended.
  enum class Ended { kQuietly, kByCrash };
  cluster::ShutdownReason Of(const std::string& guest_id, Ended ended) const {
    using enum cluster::ShutdownCause;
    const Known known = Find(guest_id);
    // A guest that crashes after it was asked to shut down has crashed.
    const bool was_asked = known.expected && known.expected->cause == kShutDown;
    if (known.expected && !(was_asked && ended == Ended::kByCrash)) return *known.expected;
    if (ended == Ended::kByCrash) return {kCrashed, true};
    return {known.has_run ? kFromInside : kNotKnown, false};
  }

 private:
  struct Known {
    std::optional<cluster::ShutdownReason> expected;
    bool has_run = false;
  };
  Known Find(const std::string& guest_id) const {
    const std::lock_guard lock(mutex_);
    const auto found = guests_.find(guest_id);
    return found == guests_.end() ? Known() : found->second;
  }

  mutable std::mutex mutex_;
  std::map<std::string, Known> guests_;
};

}  // namespace vexa::guests
