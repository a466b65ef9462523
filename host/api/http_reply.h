// Replies to HTTP requests, from responses of handlers and from error codes.
#pragma once

#include <json/value.h>

#include <string>

#include "host/base/error_table.h"
#include "host/http/http_server.h"
#include "webapi/platform/webapi.h"

namespace vexa::api {

// The envelope of handler_call.h with the request's id, and the HTTP status of the code. The message of an error is
// worded for `audience`.
http::HttpResponse MakeReply(const VEXA::APIResponse& response, const Json::Value& extra_members,
                             const std::string& request_id, Audience audience = Audience::kUsers);

// The reply for an error code: its HTTP status, and {"success": false, "error": {"code", "message", "details"?},
// "request_id"}. A null `details` is left out.
http::HttpResponse MakeErrorReply(int code, const Json::Value& details, const std::string& request_id);
http::HttpResponse MakeErrorReply(int code, const std::string& request_id);

}  // namespace vexa::api
