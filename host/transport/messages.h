// Requests to and replies from hosts, as bytes and as JSON.
#pragma once

#include <json/value.h>

#include <cstddef>
#include <string>
#include <string_view>

#include "webapi/platform/dr.h"

namespace vexa::transport {

inline constexpr std::size_t kMaxReplyBytes = std::size_t{16} << 20;
// A value takes at least 2 bytes as text, and about a hundred once it is parsed.
inline constexpr std::size_t kMaxReplyValues = 2'000'000;

// "/webapi/<API>/<method>?version=<n>"; empty when the name of the API or the method is invalid. Valid are letters,
// digits, "_" and ".", with at least one character other than ".".
std::string PathOf(const VexaDRCore::Request& request);

// The parameters as JSON text; "{}" without any.
std::string BodyOf(const VexaDRCore::Request& request);

// {"success": false, "error": {"code": 102, "message": …}}. The message names the host and the reason; both may come
// from outside.
Json::Value FailedReply(std::string_view host_id, std::string_view reason);

// The reply in `body`; a failed one when it is not a JSON object, too deep, or has more than kMaxReplyValues values,
// where an empty array or object counts as two.
Json::Value ParseReply(std::string_view host_id, std::string_view body);

}  // namespace vexa::transport
