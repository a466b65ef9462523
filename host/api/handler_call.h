// Calls a handler and makes the reply from its response. Used for calls over a socket and for those of this host
// itself.
#pragma once

#include <json/value.h>

#include <string>
#include <utility>
#include <vector>

#include "host/api/api_table.h"

namespace vexa::api {

// Returns 0 when callers of this kind may call a method with this access, otherwise the error code. CheckUser checks
// the rights of users once they are known.
int CheckCaller(Access access, const Caller& caller);

// The rest of the check, once the user is known.
int CheckUser(Access access, const Caller& caller);

struct HandlerCall {
  const ApiRow& row;
  const Caller& caller;
  Json::Value parameters;
};

// Runs the handler within a request's read scope. An exception is logged; then, or when the handler does not respond,
// the response is an internal error. `extra_members` receives the additional members of the reply.
void CallHandler(HandlerCall call, VEXA::APIResponse& response,
                 std::vector<std::pair<std::string, std::string>>& headers, Json::Value& extra_members);

// {"success": true, "data"} or {"success": false, "error": {"code", "message", "details"?, "reason", "hint"}}, and the
// members of `extra_members` with other names. A null `details` is left out. Reason and hint are what SetReason and
// SetHint added to `extra_members`, otherwise what is known from the code. Hosts get only a reason that was added, and
// no hint. The message is worded for `audience`.
Json::Value MakeEnvelope(const VEXA::APIResponse& response, const Json::Value& extra_members,
                         Audience audience = Audience::kUsers);

}  // namespace vexa::api
