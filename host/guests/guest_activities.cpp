#include "host/guests/guest_activities.h"

#include <fmt/format.h>

#include <array>
#include <ctime>
#include <utility>

#include "host/base/time_text.h"

namespace vexa::guests {

namespace {

// A reconciliation takes milliseconds, unless libvirt or the store hangs.
constexpr std::chrono::seconds kReconcileTimeout{10};

Activity OverdueReconciliation() { return {"reconcile", {}, std::chrono::system_clock::now() - kReconcileTimeout}; }

}  // namespace

std::string Describe(const Activity& activity) {
  const Requester& by = activity.requester;
  const std::string requester = !by.user.empty()      ? by.user
                                : !by.host_id.empty() ? fmt::format("the host {}", by.host_id)
                                                      : "this host";
  return fmt::format("It has been busy with '{}' for {} since {}", activity.action, requester,
                     FormatUtcTime(activity.since));
}

GuestActivities::ActivityGuard::~ActivityGuard() {
  if (activities_) activities_->Release(guest_id_);
}

bool GuestActivities::ActivityGuard::ReleaseUnlessReconcileRequested() {
  const MutexLock lock(activities_->mutex_);
  const auto held = activities_->held_.find(guest_id_);
  if (std::exchange(held->second.is_reconcile_requested, false)) return false;
  activities_->held_.erase(held);
  activities_->released_.NotifyAll();
  activities_ = nullptr;
  return true;
}

std::variant<GuestActivities::ActivityGuard, Activity> GuestActivities::Take(const std::string& guest_id,
                                                                             Activity activity,
                                                                             std::chrono::milliseconds timeout) {
  const auto end = std::chrono::steady_clock::now() + timeout;
  const auto reconcile_end = std::chrono::steady_clock::now() + kReconcileTimeout;
  const MutexLock lock(mutex_);
  for (;;) {
    const auto [held, is_new] = held_.try_emplace(guest_id);
    if (is_new) {
      held->second.activity = std::move(activity);
      return ActivityGuard(*this, guest_id);
    }
    if (held->second.is_reconcile) {
      if (!released_.WaitUntil(mutex_, reconcile_end)) return OverdueReconciliation();
      continue;
    }
    const bool is_same = held->second.activity.action == activity.action;
    if (!is_same || std::chrono::steady_clock::now() >= end) return held->second.activity;
    released_.WaitUntil(mutex_, end);
  }
}

std::optional<GuestActivities::ActivityGuard> GuestActivities::TryTakeForReconcile(const std::string& guest_id) {
  const MutexLock lock(mutex_);
  const auto [held, is_new] = held_.try_emplace(guest_id);
  if (is_new) {
    held->second.is_reconcile = true;
    return ActivityGuard(*this, guest_id);
  }
  held->second.is_reconcile_requested = true;
  return std::nullopt;
}

bool GuestActivities::AwaitFree(const std::string& guest_id, std::chrono::milliseconds timeout) {
  const auto end = std::chrono::steady_clock::now() + timeout;
  const MutexLock lock(mutex_);
  while (held_.contains(guest_id) && released_.WaitUntil(mutex_, end)) {
  }
  return !held_.contains(guest_id);
}

void GuestActivities::Release(const std::string& guest_id) {
  const MutexLock lock(mutex_);
  held_.erase(guest_id);
  released_.NotifyAll();
}

}  // namespace vexa::guests
