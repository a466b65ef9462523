// Why guests end, as far as this process knows: kept in memory until the end is stored. For host/guests/*.cpp only.
#pragma once

#include <map>
#include <optional>
#include <string>

#include "host/base/mutex.h"
#include "host/records/shutdown_reason.h"

namespace vexa::guests {

// Threads: any, at the same time.
class EndReasons {
 public:
  // Call it before the guest is ended, or when its start has failed: this will be the reason for its end.
  void Expect(const std::string& guest_id, records::ShutdownReason reason) {
    const MutexLock lock(mutex_);
    guests_[guest_id].expected = reason;
  }
  // The guest did not end after all.
  void Cancel(const std::string& guest_id) {
    const MutexLock lock(mutex_);
    if (const auto found = guests_.find(guest_id); found != guests_.end()) found->second.expected.reset();
  }
  // Its domain was seen running.
  void RecordSeenRunning(const std::string& guest_id) {
    const MutexLock lock(mutex_);
    guests_[guest_id].has_run = true;
  }
  // Call it once the end is stored.
  void Forget(const std::string& guest_id) {
    const MutexLock lock(mutex_);
    guests_.erase(guest_id);
  }

  bool HasRun(const std::string& guest_id) const { return Find(guest_id).has_run; }
  std::optional<records::ShutdownReason> Expected(const std::string& guest_id) const { return Find(guest_id).expected; }

  // How a guest ended according to the hypervisor.
  enum class Ended { kNormally, kByCrash };
  // The reason for the end of a guest that is off now.
  records::ShutdownReason ReasonFor(const std::string& guest_id, Ended ended) const {
    using enum records::ShutdownCause;
    const Known known = Find(guest_id);
    // A guest that crashes after it was asked to shut down has crashed.
    const bool was_asked = known.expected && known.expected->cause == kShutDown;
    if (known.expected && !(was_asked && ended == Ended::kByCrash)) return *known.expected;
    if (ended == Ended::kByCrash) return {kCrashed, true};
    return {known.has_run ? kByGuest : kUnknown, false};
  }

 private:
  struct Known {
    std::optional<records::ShutdownReason> expected;
    bool has_run = false;
  };
  Known Find(const std::string& guest_id) const {
    const MutexLock lock(mutex_);
    const auto found = guests_.find(guest_id);
    return found == guests_.end() ? Known() : found->second;
  }

  mutable Mutex mutex_;
  std::map<std::string, Known> guests_ VEXA_GUARDED_BY(mutex_);
};

}  // namespace vexa::guests
