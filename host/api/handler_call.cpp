#include "host/api/handler_call.h"

#include <syslog.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <exception>

#include "host/api/bad_parameter.h"
#include "host/api/reason.h"
#include "host/base/error_table.h"
#include "host/records/request_scope.h"
#include "json/readers.h"
#include "webapi/error_codes.h"

namespace vexa::api {
namespace {

bool IsReservedMember(const std::string& name) {
  return name == "success" || name == "data" || name == "error" || name == "request_id" || name == kReason;
}

// Logs the first list that has too many elements, as handlers log other bad parameters.
bool HasTooLongList(const ApiRow& row, const Json::Value& parameters) {
  return std::ranges::any_of(row.parameters, [&](const Parameter& parameter) {
    if (parameter.max_items == 0) return false;
    const std::size_t items = json::Elements(json::Member(parameters, std::string(parameter.name))).size();
    if (items <= parameter.max_items) return false;
    ::syslog(LOG_WARNING, "%s %s was refused: '%s' has %zu elements, and may have %zu", row.api.data(),
             row.method.data(), parameter.name.data(), items, parameter.max_items);
    return true;
  });
}

// Users get a reason with the code for a bad parameter even when the handler gives none.
void AddReasonOfBadParameter(const ApiRow& row, const VEXA::APIRequest& request, const VEXA::APIResponse& response,
                             Json::Value& extra_members) {
  if (row.access.value == Access::kHost || !response.IsSet() || response.IsSuccess()) return;
  if (response.ErrorCode() != user_error::kBadParameter || json::FindMember(extra_members, kReason)) return;
  const std::string reason = DescribeBadParameter(row, request.GetParam("", Json::Value()));
  if (!reason.empty()) extra_members[kReason] = reason;
}

// Hosts of a newer version may send more to each other than this one knows; users get what they have misspelt.
bool HasUnknownParameter(const HandlerCall& call, Json::Value& extra_members) {
  if (call.row.access.value == Access::kHost || call.caller.kind == Caller::Kind::kHost) return false;
  const std::string reason = DescribeUnknownParameter(call.row, call.parameters);
  if (!reason.empty()) extra_members[kReason] = reason;
  return !reason.empty();
}

#ifndef NDEBUG
// With assertions, a reply that is not as the API description has it ends the program.
void CheckReply(const ApiRow& row, const VEXA::APIResponse& response) {
  if (!row.reply || !response.IsSet() || !response.IsSuccess()) return;
  const std::string wrong = DescribeWrongReply(*row.reply, response.Data());
  if (wrong.empty()) return;
  ::syslog(LOG_CRIT, "The reply of %s %s is not as described: %s", row.api.data(), row.method.data(), wrong.c_str());
  std::fprintf(stderr, "The reply of %s %s is not as described: %s\n", row.api.data(), row.method.data(),
               wrong.c_str());
  std::abort();
}
#endif

}  // namespace

int CheckCaller(Access access, const Caller& caller) {
  if (access == Access::kAnyone) return 0;
  if (caller.kind == Caller::Kind::kAnonymous) return user_error::kNotLoggedIn;
  return (access == Access::kHost) == (caller.kind == Caller::Kind::kHost) ? 0 : user_error::kDenied;
}

int CheckUser(Access access, const Caller& caller) {
  return access == Access::kAdministrator && !caller.user.is_administrator ? user_error::kDenied : 0;
}

void CallHandler(HandlerCall call, VEXA::APIResponse& response,
                 std::vector<std::pair<std::string, std::string>>& headers, Json::Value& extra_members) {
  if (HasUnknownParameter(call, extra_members)) return response.SetError(user_error::kBadParameter, Json::Value());
  if (HasTooLongList(call.row, call.parameters)) return response.SetError(user_error::kBadParameter, Json::Value());
  using Privilege = VEXA::APIRequest::Privilege;
  VEXA::APIRequest request(std::move(call.parameters), call.caller.user.name,
                           call.caller.user.is_administrator ? Privilege::kAdministrator : Privilege::kOrdinary);
  try {
    const records::RequestScope scope;
    call.row.handler({&request, &response, call.caller, &headers, &extra_members});
    AddReasonOfBadParameter(call.row, request, response, extra_members);
#ifndef NDEBUG
    CheckReply(call.row, response);
#endif
  } catch (const std::exception& exception) {
    // Handlers report errors in the response. An exception is a bug of ours and must not take the host down.
    ::syslog(LOG_ERR, "%s %s failed: %s", call.row.api.data(), call.row.method.data(), exception.what());
    response = VEXA::APIResponse();
    extra_members = Json::Value(Json::objectValue);
  }
  if (!response.IsSet()) response.SetError(user_error::kInternal, Json::Value());
}

Json::Value MakeEnvelope(const VEXA::APIResponse& response, const Json::Value& extra_members, Audience audience) {
  Json::Value reply(Json::objectValue);
  for (const std::string& name : json::MemberNames(extra_members)) {
    if (!IsReservedMember(name)) reply[name] = extra_members[name];
  }
  reply["success"] = response.IsSuccess();
  if (response.IsSuccess()) {
    reply["data"] = response.Data();
    return reply;
  }
  const ErrorRow* row = FindError(response.ErrorCode(), audience);
  if (!row) row = FindError(user_error::kInternal);
  reply["error"]["code"] = response.ErrorCode();
  reply["error"]["message"] = std::string(row->sentence);
  if (!response.Data().isNull()) reply["error"]["details"] = response.Data();
  if (const Json::Value* reason = json::FindMember(extra_members, kReason)) reply["error"]["reason"] = *reason;
  return reply;
}

}  // namespace vexa::api
