// Origins of web pages (RFC 6454).
#pragma once

#include <string_view>

namespace vexa {

// Whether `text` is an origin as browsers send it: "https://nas.example" or "http://127.0.0.1:3000", in lower case,
// without a path. "*" and "null" are not origins.
bool IsOrigin(std::string_view text);

}  // namespace vexa
