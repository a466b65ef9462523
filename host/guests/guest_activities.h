// Allows one operation at a time on a guest. For host/guests/*.cpp only.
#pragma once

#include <chrono>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <variant>

#include "host/base/mutex.h"
#include "host/guests/jobs/requester.h"

namespace vexa::guests {

// An operation in progress on a guest: its name, who requested it, and since when it runs.
struct Activity {
  std::string action;  // "poweron", …
  Requester requester;
  std::chrono::system_clock::time_point since;
};

// "It has been busy with 'poweron' for alice since 2026-11-21T09:30:00Z". The names are not escaped.
std::string Describe(const Activity& activity);

// A guest is locked by its activity, or briefly by a reconciliation of its records with the hypervisor. The object that
// holds the lock is an ActivityGuard. A reconciliation that is requested meanwhile is left to the holder of the lock,
// so that reconciliations never wait. Threads: any, at the same time.
class GuestActivities {
 public:
  // Releases the guest when destroyed. Reconciliations that were left to this guard must have been done before.
  class ActivityGuard {
   public:
    ActivityGuard(GuestActivities& activities, std::string guest_id)
        : activities_(&activities), guest_id_(std::move(guest_id)) {}
    ActivityGuard(ActivityGuard&& other) noexcept
        : activities_(std::exchange(other.activities_, nullptr)), guest_id_(std::move(other.guest_id_)) {}
    ActivityGuard& operator=(ActivityGuard&&) = delete;
    ~ActivityGuard();

    // Releases the guest, unless a reconciliation was left to this guard since the last call: then the holder must
    // reconcile the guest and call again. No request is lost in between.
    bool ReleaseUnlessReconcileRequested();

   private:
    GuestActivities* activities_;  // null: released
    std::string guest_id_;
  };

  // Waits at most 10 s while the guest is only being reconciled, and `timeout` while it is held for the same action.
  // Returns the guard, or else the activity that holds the guest.
  std::variant<ActivityGuard, Activity> Take(const std::string& guest_id, Activity activity,
                                             std::chrono::milliseconds timeout = std::chrono::milliseconds(0));
  // Takes the guest for a reconciliation. Not set: the guest is held, and the reconciliation was left to the holder.
  std::optional<ActivityGuard> TryTakeForReconcile(const std::string& guest_id);
  // False: the guest is still held by then.
  bool AwaitFree(const std::string& guest_id, std::chrono::milliseconds timeout);

 private:
  struct Held {
    bool is_reconcile = false;
    Activity activity;
    bool is_reconcile_requested = false;
  };
  void Release(const std::string& guest_id);

  Mutex mutex_;
  ConditionVariable released_;
  std::map<std::string, Held> held_ VEXA_GUARDED_BY(mutex_);
};

}  // namespace vexa::guests
