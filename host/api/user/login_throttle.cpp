#include "host/api/user/login_throttle.h"

#include <fmt/format.h>

#include <chrono>

#include "host/accounts/accounts.h"
#include "host/api/rows.h"
#include "host/session/session_token.h"

namespace vexa::api {
namespace {

// Whether the caller is the user already, with a session or on the Unix socket.
bool IsUser(const Caller& caller, const std::string& user) {
  return caller.kind == Caller::Kind::kUser &&
         accounts::LowerCaseName(caller.user.name) == accounts::LowerCaseName(user);
}

}  // namespace

std::optional<session::LoginAttempt> BeginAttempt(session::LoginLimiter& limiter, const session::SessionTable& sessions,
                                                  const Call& call, const std::string& user) {
  const Caller& caller = call.caller;
  const bool is_user = IsUser(caller, user);
  session::LoginAttempt attempt{caller.peer, user, is_user || sessions.IsKnownAddress(user, caller.peer)};
  // A session has an allowance of its own: strangers at the user's address cannot use it up.
  if (is_user && !caller.session_token.empty()) {
    attempt.peer = "session:" + session::SessionIdOfToken(caller.session_token);
  }
  const std::chrono::milliseconds wait = limiter.TakeToken(attempt);
  if (wait.count() == 0) return attempt;
  const auto seconds = (wait.count() + 999) / 1000;
  call.headers->emplace_back("Retry-After", std::to_string(seconds));
  Fail(call, user_error::kTooManyLogins,
       fmt::format("The next attempt from this address, or for this user, is possible in {} s.", seconds));
  return std::nullopt;
}

}  // namespace vexa::api
