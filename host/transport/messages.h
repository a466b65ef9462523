// What goes to a host and comes from one, as bytes and as JSON.
#pragma once

#include <json/value.h>

#include <cstddef>
#include <string>
#include <string_view>

#include "webapi/platform/dr.h"

namespace vexa::transport {

inline constexpr std::size_t kMaxReplyBytes = std::size_t{16} << 20;
// A value takes 2 bytes as text, and a hundred once it is parsed.
inline constexpr std::size_t kMaxReplyValues = 2'000'000;

// "/webapi/<API>/<method>?version=<n>"; empty when the API's or the method's name is none: letters, digits, "_" and
// ".", at least one of them no ".".
std::string PathOf(const VexaDRCore::Request& request);

// The parameters as JSON text; "{}" without any.
std::string BodyOf(const VexaDRCore::Request& request);

// {"success": false, "error": {"code": 102, "message": …}}. The message names the host and the reason; both may come
// from outside.
Json::Value FailedReply(std::string_view host_id, std::string_view reason);

// The reply in `body`; a failed one when it is no JSON object, too deep, or more than kMaxReplyValues values, of which
// an empty array or object counts as two.
Json::Value ParseReply(std::string_view host_id, std::string_view body);

}  // namespace vexa::transport
