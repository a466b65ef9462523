// What goes to a host and comes from one, as bytes and as JSON.
#pragma once

#include <json/value.h>

#include <cstddef>
#include <string>
#include <string_view>

#include "webapi/platform/dr.h"

namespace vexa::transport {

inline constexpr std::size_t kMaxReplyBytes = std::size_t{16} << 20;

// "/webapi/<API>/<method>?version=<n>"; empty when the API's or the method's name is none: letters, digits, "_" and
// ".", at least one of them no ".".
std::string PathOf(const VexaDRCore::Request& request);

// The parameters as JSON text; "{}" without any.
std::string BodyOf(const VexaDRCore::Request& request);

// {"success": false, "error": {"code": 102, "message": …}}. The message names the host and the reason; both may come
// from outside.
Json::Value FailedReply(std::string_view host_id, std::string_view reason);

// The reply in `body`; a failed one when it is no JSON object, or too deep.
Json::Value ParseReply(std::string_view host_id, std::string_view body);

}  // namespace vexa::transport
