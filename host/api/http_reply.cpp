#include "host/api/http_reply.h"

#include "host/api/handler_call.h"
#include "host/api/reason.h"
#include "json/readers.h"
#include "webapi/error_codes.h"

namespace vexa::api {
namespace {

// Reserved for a reply before its size is known.
constexpr std::size_t kTypicalReplyBytes = 2048;

}  // namespace

http::HttpResponse MakeReply(const VEXA::APIResponse& response, const Json::Value& extra_members,
                             const std::string& request_id, Audience audience) {
  http::HttpResponse reply;
  if (response.IsSuccess() && extra_members.empty()) {  // without copying the data
    reply.body.reserve(kTypicalReplyBytes);
    reply.body += "{\"success\":true,\"data\":";
    json::AppendText(reply.body, response.Data());
    reply.body.append(",\"request_id\":\"").append(request_id).append("\"}");
    return reply;
  }
  Json::Value body = MakeEnvelope(response, extra_members, audience);
  body["request_id"] = request_id;
  reply.body = json::ToText(body);
  if (response.IsSuccess()) return reply;
  const ErrorRow* row = FindError(response.ErrorCode(), audience);
  if (!row) row = FindError(user_error::kInternal);
  reply.status = row->http_status;
  if (response.ErrorCode() == user_error::kHostBusy) reply.headers.emplace_back("Retry-After", "1");
  if (row->http_status == 401) reply.headers.emplace_back("WWW-Authenticate", "Bearer");
  return reply;
}

http::HttpResponse MakeErrorReply(int code, const std::string& request_id, const std::string& reason) {
  VEXA::APIResponse response;
  response.SetError(code, Json::Value());
  Json::Value extra_members(Json::objectValue);
  if (!reason.empty()) extra_members[kReason] = reason;
  return MakeReply(response, extra_members, request_id);
}

}  // namespace vexa::api
