// Calling a handler and putting its answer into the form of a reply; the same for calls from a socket and from within.
#pragma once

#include <json/value.h>

#include <string>
#include <utility>
#include <vector>

#include "host/api/api_table.h"

namespace vexa::daemon {

// 0 when callers of this kind may call a method of this access, else the error code. Of users, who may do what is
// decided when they are known: CheckUser.
int CheckCaller(webapi::Access access, const webapi::Caller& caller);

// The rest of the check, once the user is known.
int CheckUser(webapi::Access access, const webapi::Caller& caller);

struct HandlerCall {
  const webapi::ApiRow& row;
  const webapi::Caller& caller;
  Json::Value parameters;
};

// Runs the handler within a request's scope of reads. What it throws is logged; then, and when it answers nothing, the
// response is an internal error. `further` gets the further members of the reply.
void CallHandler(HandlerCall call, VEXA::APIResponse& response,
                 std::vector<std::pair<std::string, std::string>>& headers, Json::Value& further);

// {"success": true, "data"} or {"success": false, "error": {"code", "message", "details"?, "reason"?}}, and the members
// of `further` that have none of these names. A null `details` is left out. The reason is what webapi::SetReason put
// into `further`. The message is in the words of `audience`.
Json::Value MakeEnvelope(const VEXA::APIResponse& response, const Json::Value& further,
                         webapi::Audience audience = webapi::Audience::kUsers);

}  // namespace vexa::daemon
