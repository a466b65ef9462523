// Slows down guesses of passwords, for all methods that check one.
#pragma once

#include <optional>
#include <string>

#include "host/api/api_table.h"
#include "host/session/login_limiter.h"
#include "host/session/sessions.h"

namespace vexa::api {

// Call it before a password of `user` is checked. Returns the attempt, whose token is to be returned when the password
// is right. Not set when the caller has to wait; the call has then been answered.
std::optional<session::LoginAttempt> BeginAttempt(session::LoginLimiter& limiter, const session::SessionTable& sessions,
                                                  const Call& call, const std::string& user);

}  // namespace vexa::api
