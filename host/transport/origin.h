// The user and the request on whose behalf a thread works. Its requests to other hosts carry both as header fields: the
// hosts can then report which user keeps a guest busy, and the log lines of one request have the same id on all hosts.
//
//   X-Vexa-Acts-For     the acting user's name, percent-encoded where it is not visible ASCII
//   X-Vexa-Request-Id   the id of the request that this one is part of
//
// Only hosts send them, and they are ignored from any other sender.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace vexa::transport {

inline constexpr std::string_view kActsForField = "X-Vexa-Acts-For";
inline constexpr std::string_view kRequestIdField = "X-Vexa-Request-Id";
inline constexpr std::size_t kMaxActingUserBytes = 256;

// Both are empty when unknown.
struct Origin {
  std::string_view request_id;
  std::string_view user;
};

// The calling thread's origin. The argument of SetOrigin must live until the next call.
Origin CurrentOrigin();
void SetOrigin(Origin origin);

// Whether `text` has the form of a request id: 16 lower-case hexadecimal digits.
bool IsRequestId(std::string_view text);

// The header lines for it, without line ends. Invalid values are left out instead of changed, because a changed name
// would be another user's: an id of another form; a name that is empty, longer than kMaxActingUserBytes, not valid
// UTF-8, or has control characters.
std::vector<std::string> OriginHeaders(const Origin& origin);

// The name in a value of X-Vexa-Acts-For; empty when it could not have come from OriginHeaders.
std::string ActingUserOf(std::string_view value);

}  // namespace vexa::transport
