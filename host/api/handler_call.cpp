#include "host/api/handler_call.h"

#include <syslog.h>

#include <exception>

#include "host/api/reason.h"
#include "host/base/error_table.h"
#include "host/records/reading.h"
#include "json/readers.h"

namespace vexa::daemon {
namespace {

namespace json = VexaVirtualization::json;
using webapi::Access;
using webapi::Caller;

bool IsOwnMember(const std::string& name) {
  return name == "success" || name == "data" || name == "error" || name == "request_id" || name == webapi::kReason;
}

}  // namespace

int CheckCaller(Access access, const Caller& caller) {
  if (access == Access::kAnyone) return 0;
  if (caller.kind == Caller::Kind::kNobody) return webapi::kErrorNotLoggedIn;
  return (access == Access::kHost) == (caller.kind == Caller::Kind::kHost) ? 0 : webapi::kErrorDenied;
}

int CheckUser(Access access, const Caller& caller) {
  return access == Access::kAdministrator && !caller.user.is_administrator ? webapi::kErrorDenied : 0;
}

void CallHandler(HandlerCall call, VEXA::APIResponse& response,
                 std::vector<std::pair<std::string, std::string>>& headers, Json::Value& further) {
  using Privilege = VEXA::APIRequest::Privilege;
  VEXA::APIRequest request(std::move(call.parameters), call.caller.user.name,
                           call.caller.user.is_administrator ? Privilege::kAdministrator : Privilege::kOrdinary);
  try {
    const cluster::RequestScope scope;
    call.row.handler({&request, &response, call.caller, &headers, &further});
  } catch (const std::exception& exception) {
    // Handlers report errors in the response. An exception is a bug of ours and must not take the host down.
    ::syslog(LOG_ERR, "%s %s failed: %s", call.row.api.data(), call.row.method.data(), exception.what());
    response = VEXA::APIResponse();
    further = Json::Value(Json::objectValue);
  }
  if (!response.IsSet()) response.SetError(webapi::kErrorInternal, Json::Value());
}

Json::Value MakeEnvelope(const VEXA::APIResponse& response, const Json::Value& further, webapi::Audience audience) {
  Json::Value reply(Json::objectValue);
  for (const std::string& name : json::MemberNames(further)) {
    if (!IsOwnMember(name)) reply[name] = further[name];
  }
  reply["success"] = response.IsSuccess();
  if (response.IsSuccess()) {
    reply["data"] = response.Data();
    return reply;
  }
  const webapi::ErrorRow* row = webapi::FindError(response.ErrorCode(), audience);
  if (!row) row = webapi::FindError(webapi::kErrorInternal);
  reply["error"]["code"] = response.ErrorCode();
  reply["error"]["message"] = std::string(row->sentence);
  if (!response.Data().isNull()) reply["error"]["details"] = response.Data();
  if (const Json::Value* reason = json::FindMember(further, webapi::kReason)) reply["error"]["reason"] = *reason;
  return reply;
}

}  // namespace vexa::daemon
