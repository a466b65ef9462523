#include "host/guests/claims.h"

#include <array>
#include <ctime>
#include <utility>

#include "host/base/time_text.h"

namespace vexa::guests {

namespace {

// A reconciliation takes milliseconds, unless libvirt or the store hangs.
constexpr std::chrono::seconds kLookPatience{10};

Activity HangingLook() { return {"looking", {}, std::chrono::system_clock::now() - kLookPatience}; }

}  // namespace

std::string Describe(const Activity& activity) {
  const Requester& by = activity.requester;
  const std::string who = !by.user.empty() ? by.user : !by.host_id.empty() ? "the host " + by.host_id : "this host";
  return "It is busy with '" + activity.action + "' for " + who + " since " + TimeText(activity.since);
}

Claims::Claim::~Claim() {
  if (claims_) claims_->Release(guest_id_);
}

bool Claims::Claim::ReleaseUnlessAsked() {
  const std::lock_guard lock(claims_->mutex_);
  const auto held = claims_->held_.find(guest_id_);
  if (std::exchange(held->second.is_look_left, false)) return false;
  claims_->held_.erase(held);
  claims_->released_.notify_all();
  claims_ = nullptr;
  return true;
}

std::variant<Claims::Claim, Activity> Claims::Take(const std::string& guest_id, Activity activity,
                                                   std::chrono::milliseconds patience) {
  const auto end = std::chrono::steady_clock::now() + patience;
  const auto look_end = std::chrono::steady_clock::now() + kLookPatience;
  std::unique_lock lock(mutex_);
  for (;;) {
    const auto [held, is_new] = held_.try_emplace(guest_id);
    if (is_new) {
      held->second.activity = std::move(activity);
      return Claim(*this, guest_id);
    }
    if (held->second.is_look) {
      if (released_.wait_until(lock, look_end) == std::cv_status::timeout) return HangingLook();
      continue;
    }
    const bool is_same = held->second.activity.action == activity.action;
    if (!is_same || std::chrono::steady_clock::now() >= end) return held->second.activity;
    released_.wait_until(lock, end);
  }
}

std::optional<Claims::Claim> Claims::TakeToLook(const std::string& guest_id) {
  const std::lock_guard lock(mutex_);
  const auto [held, is_new] = held_.try_emplace(guest_id);
  if (is_new) {
    held->second.is_look = true;
    return Claim(*this, guest_id);
  }
  held->second.is_look_left = true;
  return std::nullopt;
}

bool Claims::AwaitFree(const std::string& guest_id, std::chrono::milliseconds patience) {
  std::unique_lock lock(mutex_);
  return released_.wait_for(lock, patience, [&] { return !held_.contains(guest_id); });
}

void Claims::Release(const std::string& guest_id) {
  const std::lock_guard lock(mutex_);
  held_.erase(guest_id);
  released_.notify_all();
}

}  // namespace vexa::guests
