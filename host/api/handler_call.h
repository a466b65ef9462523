// Calls a handler and renders its response as a reply; the same for calls from a socket and from within.
#pragma once

#include <json/value.h>

#include <string>
#include <utility>
#include <vector>

#include "host/api/api_table.h"

namespace vexa::daemon {

// 0 when callers of this kind may call a method with this access, otherwise the error code. The rights of users are
// checked once they are known: CheckUser.
int CheckCaller(webapi::Access access, const webapi::Caller& caller);

// The rest of the check, once the user is known.
int CheckUser(webapi::Access access, const webapi::Caller& caller);

struct HandlerCall {
  const webapi::ApiRow& row;
  const webapi::Caller& caller;
  Json::Value parameters;
};

// Runs the handler within a request's read scope. An exception is logged; then, or when the handler does not respond,
// the response is an internal error. `further` receives the additional members of the reply.
void CallHandler(HandlerCall call, VEXA::APIResponse& response,
                 std::vector<std::pair<std::string, std::string>>& headers, Json::Value& further);

// {"success": true, "data"} or {"success": false, "error": {"code", "message", "details"?, "reason"?}}, and the members
// of `further` with other names. A null `details` is left out. The reason is what webapi::SetReason put into `further`.
// The message is worded for `audience`.
Json::Value MakeEnvelope(const VEXA::APIResponse& response, const Json::Value& further,
                         webapi::Audience audience = webapi::Audience::kUsers);

}  // namespace vexa::daemon
