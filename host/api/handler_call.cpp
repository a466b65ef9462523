#include "host/api/handler_call.h"

#include <fmt/format.h>
#include <syslog.h>

#include <cstdio>
#include <cstdlib>
#include <exception>
#include <string_view>
#include <utility>

#include "host/api/bad_parameter.h"
#include "host/api/failure_reason.h"
#include "host/api/reason.h"
#include "host/base/error_help.h"
#include "host/base/error_table.h"
#include "host/records/request_scope.h"
#include "json/readers.h"
#include "webapi/error_codes.h"

namespace vexa::api {
namespace {

bool IsReservedMember(const std::string& name) {
  return name == "success" || name == "data" || name == "error" || name == "request_id" || name == kReason ||
         name == kHint;
}

// A sentence about the first list that has too many elements, which is logged as handlers log other bad parameters. "":
// there is no such list.
std::string ReasonOfTooLongList(const ApiRow& row, const Json::Value& parameters) {
  for (const Parameter& parameter : row.parameters) {
    if (parameter.max_items == 0) continue;
    const std::size_t items = json::Elements(json::Member(parameters, std::string(parameter.name))).size();
    if (items <= parameter.max_items) continue;
    ::syslog(LOG_WARNING, "%s %s was refused: '%s' has %zu elements, and may have %zu", row.api.data(),
             row.method.data(), parameter.name.data(), items, parameter.max_items);
    return fmt::format("The parameter '{}' has {} elements, and may have {}.", parameter.name, items,
                       parameter.max_items);
  }
  return "";
}

// The text that a handler has given, otherwise `fallback`.
Json::Value GivenOr(const Json::Value& extra_members, const char* name, std::string_view fallback) {
  const Json::Value* const given = json::FindMember(extra_members, name);
  return given && given->isString() && !json::String(*given).empty() ? *given : Json::Value(std::string(fallback));
}

// Hosts of a newer version may send more to each other than this one knows; users get what they have misspelt.
bool HasUnknownParameter(const HandlerCall& call, Json::Value& extra_members) {
  if (call.row.access.value == Access::kHost || call.caller.kind == Caller::Kind::kHost) return false;
  const std::string reason = DescribeUnknownParameter(call.row, call.parameters);
  if (!reason.empty()) extra_members[kReason] = reason;
  return !reason.empty();
}

#ifndef NDEBUG
// With assertions, a reply that is not as the API description has it ends the program. A damaged record can cause one
// as well, so tests that damage records set VEXA_KEEP_WRONG_REPLIES, and the reply is only logged.
void CheckReply(const ApiRow& row, const VEXA::APIResponse& response) {
  if (!row.reply || !response.IsSet() || !response.IsSuccess()) return;
  const std::string wrong = DescribeWrongReply(*row.reply, response.Data());
  if (wrong.empty()) return;
  ::syslog(LOG_CRIT, "The reply of %s %s is not as described: %s", row.api.data(), row.method.data(), wrong.c_str());
  std::fprintf(stderr, "The reply of %s %s is not as described: %s\n", row.api.data(), row.method.data(),
               wrong.c_str());
  if (!std::getenv("VEXA_KEEP_WRONG_REPLIES")) std::abort();
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
  if (std::string reason = ReasonOfTooLongList(call.row, call.parameters); !reason.empty()) {
    extra_members[kReason] = std::move(reason);
    return response.SetError(user_error::kBadParameter, Json::Value());
  }
  using Privilege = VEXA::APIRequest::Privilege;
  VEXA::APIRequest request(std::move(call.parameters), call.caller.user.name,
                           call.caller.user.is_administrator ? Privilege::kAdministrator : Privilege::kOrdinary);
  try {
    const records::RequestScope scope;
    const FailureFindings findings;
    const Call handled{&request, &response, call.caller, &headers, &extra_members};
    call.row.handler(handled);
    AddMissingReason(call.row, handled, findings);
#ifndef NDEBUG
    CheckReply(call.row, response);
#endif
  } catch (const std::exception& exception) {
    // Handlers report errors in the response. An exception is a bug of ours and must not take the host down.
    ::syslog(LOG_ERR, "%s %s failed: %s", call.row.api.data(), call.row.method.data(), exception.what());
    response = VEXA::APIResponse();
    extra_members = Json::Value(Json::objectValue);
    extra_members[kReason] = "The method ended with an error of this program, which the system log of the host has.";
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
  if (audience == Audience::kUsers) {
    const std::string details = response.Data().isString() ? json::String(response.Data()) : "";  // a sentence
    reply["error"][kReason] =
        GivenOr(extra_members, kReason, details.empty() ? ReasonOfCode(response.ErrorCode()) : details);
    reply["error"][kHint] = GivenOr(extra_members, kHint, HintFor(row->code));
  } else if (const Json::Value* const reason = json::FindMember(extra_members, kReason)) {
    reply["error"][kReason] = *reason;
  }
  return reply;
}

}  // namespace vexa::api
