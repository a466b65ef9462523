// One thing at a time is done with a guest. For host/guests/*.cpp only.
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

// What is being done with a guest, for whom, since when.
struct Activity {
  std::string action;  // "poweron", …
  Requester requester;
  std::chrono::system_clock::time_point since;
};

// "It is busy with 'poweron' for alice since 2026-11-21T09:30:00Z"; whatever is in the texts.
std::string Describe(const Activity& activity);

// Who holds a guest is its activity, or somebody who looks at it for a moment ("looking"). Looks asked for meanwhile
// are left to the holder, so that they never wait.
// Threads: any, at the same time.
class Claims {
 public:
  // Gives the guest back when it goes; the looks left must have been taken before.
  class Claim {
   public:
    Claim(Claims& claims, std::string guest_id) : claims_(&claims), guest_id_(std::move(guest_id)) {}
    Claim(Claim&& other) noexcept
        : claims_(std::exchange(other.claims_, nullptr)), guest_id_(std::move(other.guest_id_)) {}
    Claim& operator=(Claim&&) = delete;
    ~Claim();

    // Gives the guest back, unless looks were left to this claim since the last call: then it is to be looked at once
    // more. None is lost in between.
    bool ReleaseUnlessAsked();

   private:
    Claims* claims_;  // null: given back
    std::string guest_id_;
  };

  // Waits while the guest is only looked at, for 10 s at most, and for `patience` while somebody has it for the same
  // action. Not a claim: what is being done with it.
  std::variant<Claim, Activity> Take(const std::string& guest_id, Activity activity,
                                     std::chrono::milliseconds patience = std::chrono::milliseconds(0));
  // For a look. Not set: it was left to the holder.
  std::optional<Claim> TakeToLook(const std::string& guest_id);
  // False: somebody still has the guest by then.
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
