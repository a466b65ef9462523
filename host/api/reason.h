// Why a call failed, as a sentence for users, and what helps.
#pragma once

#include <string>
#include <string_view>

#include "host/api/api_table.h"

namespace vexa::api {

// The members of Call::extra_members that have the reason and the hint until the reply is made.
inline constexpr const char* kReason = "reason";
inline constexpr const char* kHint = "hint";

// What everybody but administrators gets in place of a reason that names files, processes, other guests, or what goes
// on inside a host.
inline constexpr char kAskAdministrator[] =
    "Administrators can read what the host found: ask one of them, and name the request's id.";

enum class Readers {
  kCaller,          // anyone who may make the call
  kAdministrators,  // others get kAskAdministrator
};

// The one rule of who may read a reason: `reason`, or the sentence for a caller who may not.
inline std::string ReasonFor(bool is_administrator, Readers readers, std::string reason) {
  if (is_administrator || readers == Readers::kCaller || reason.empty()) return reason;
  return kAskAdministrator;
}

// Adds `reason`, a sentence, to the error that the call returns, beside its code and message. Has no effect on a
// success.
inline void SetReason(const Call& call, const std::string& reason, Readers readers = Readers::kCaller) {
  if (!call.extra_members) return;
  (*call.extra_members)[kReason] = ReasonFor(call.request->IsAdmin(), readers, reason);
}

// Adds a hint in place of the one that the error's code has.
inline void SetHint(const Call& call, std::string_view hint) {
  if (call.extra_members) (*call.extra_members)[kHint] = std::string(hint);
}

}  // namespace vexa::api
