// Allows one operation at a time on a guest. For host/guests/*.cpp only.
#pragma once

#include <chrono>
#include <condition_variable>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <variant>

#include "host/guests/jobs/requester.h"

namespace vexa::guests {

// An operation in progress on a guest, for whom, since when.
struct Activity {
  std::string action;  // "poweron", …
  Requester requester;
  std::chrono::system_clock::time_point since;
};

// "It is busy with 'poweron' for alice since 2026-11-21T09:30:00Z"; the texts may contain anything.
std::string Describe(const Activity& activity);

// A guest is held by its activity, or briefly by a look: reconciling its records with the hypervisor. A look requested
// meanwhile is left to the holder, so looks never wait.
// Threads: any, at the same time.
class Claims {
 public:
  // Releases the guest when destroyed; looks left to this claim must have been handled before.
  class Claim {
   public:
    Claim(Claims& claims, std::string guest_id) : claims_(&claims), guest_id_(std::move(guest_id)) {}
    Claim(Claim&& other) noexcept
        : claims_(std::exchange(other.claims_, nullptr)), guest_id_(std::move(other.guest_id_)) {}
    Claim& operator=(Claim&&) = delete;
    ~Claim();

    // Releases the guest, unless looks were left to this claim since the last call: then the holder must look once
    // more. No look is lost in between.
    bool ReleaseUnlessAsked();

   private:
    Claims* claims_;  // null: released
    std::string guest_id_;
  };

  // Waits at most 10 s while the guest is only held by a look, and `patience` while it is held for the same action. If
  // the result is not a claim, it is the current activity.
  std::variant<Claim, Activity> Take(const std::string& guest_id, Activity activity,
                                     std::chrono::milliseconds patience = std::chrono::milliseconds(0));
  // For a look. Not set: it was left to the holder.
  std::optional<Claim> TakeToLook(const std::string& guest_id);
  // False: the guest is still held by then.
  bool AwaitFree(const std::string& guest_id, std::chrono::milliseconds patience);

 private:
  struct Held {
    bool is_look = false;
    Activity activity;
    bool is_look_left = false;
  };
  void Release(const std::string& guest_id);

  std::mutex mutex_;
  std::condition_variable released_;
  std::map<std::string, Held> held_;
};

}  // namespace vexa::guests
