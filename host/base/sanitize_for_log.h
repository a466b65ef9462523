// Makes strings from outside safe for the cluster log.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace vexa {

// Returns `text` as one line of valid UTF-8 of at most `max_bytes` (at least 3): each control character
// (IsControlCharacter) becomes a space, each byte that is not UTF-8 becomes U+FFFD, and "…" replaces the rest if it
// does not fit.
std::string SanitizeForLog(std::string_view text, std::size_t max_bytes);

// The same for the path of a file, limited to 512 bytes.
std::string SanitizePathForLog(std::string_view path);
// The same, in single quotes.
std::string QuotedPath(std::string_view path);

}  // namespace vexa
