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

// The reply to a user for an error code: its HTTP status, and the envelope with the request's id. With `reason` "" the
// reason is what is known from the code.
http::HttpResponse MakeErrorReply(int code, const std::string& request_id, const std::string& reason = "");

}  // namespace vexa::api
