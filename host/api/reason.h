// Why a call failed, in words for users.
#pragma once

#include <string>

#include "host/api/api_table.h"

namespace vexa::webapi {

// The member of Call::further that holds it until the reply is made.
inline constexpr const char* kReason = "reason";

// Adds `reason`, a sentence, to the error that the call returns, beside its code and message. Has no effect on a
// success.
inline void SetReason(const Call& call, const std::string& reason) {
  if (call.further) (*call.further)[kReason] = reason;
}

}  // namespace vexa::webapi
