// Why a call failed, as a sentence for users.
#pragma once

#include <string>

#include "host/api/api_table.h"

namespace vexa::api {

// The member of Call::extra_members that has the reason until the reply is made.
inline constexpr const char* kReason = "reason";

// Adds `reason`, a sentence, to the error that the call returns, beside its code and message. Has no effect on a
// success.
inline void SetReason(const Call& call, const std::string& reason) {
  if (call.extra_members) (*call.extra_members)[kReason] = reason;
}

}  // namespace vexa::api
