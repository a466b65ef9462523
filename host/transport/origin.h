// On whose behalf a thread works: what its requests to other hosts carry, so that these can say who keeps a guest busy,
// and so that the log lines of all hosts of one request have one id.
//
//   X-Vexa-Acts-For     the acting user's name, percent-encoded where it is no visible ASCII
//   X-Vexa-Request-Id   the id of the request that this one is part of
//
// Only hosts send them, and they are taken from nobody else.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace vexa::transport {

inline constexpr std::string_view kActsForField = "X-Vexa-Acts-For";
inline constexpr std::string_view kRequestIdField = "X-Vexa-Request-Id";
inline constexpr std::size_t kMaxActingUserBytes = 256;

// Both empty when they are not known.
struct Origin {
  std::string_view request_id;
  std::string_view user;
};

// The calling thread's. What SetOrigin is given must live until it is called again.
Origin CurrentOrigin();
void SetOrigin(Origin origin);

// The form that ids of requests have: 16 lower-case hexadecimal digits.
bool IsRequestId(std::string_view text);

// The header lines for it, without line ends. What cannot be told is left out rather than changed, as it would name
// somebody else: an id of another form; a name that is empty, longer than kMaxActingUserBytes, not valid UTF-8, or has
// control characters.
std::vector<std::string> OriginFields(const Origin& origin);

// The name in a value of X-Vexa-Acts-For; empty when it could not have come from OriginFields.
std::string ActingUserOf(std::string_view value);

}  // namespace vexa::transport
