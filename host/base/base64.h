// base64 with padding (RFC 4648, section 4).
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace vexa {

std::string EncodeBase64(std::string_view bytes);
// Not set for a text that EncodeBase64 does not return.
std::optional<std::string> DecodeBase64(std::string_view text);

}  // namespace vexa
