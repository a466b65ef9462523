// Makes texts from outside safe for the cluster log.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace vexa::cluster {

// `text` as one line of valid UTF-8 of at most `max_bytes` (at least 3): each control character and line separator
// becomes a blank, each byte that is not UTF-8 becomes U+FFFD, and "…" replaces what does not fit.
std::string LogText(std::string_view text, std::size_t max_bytes);

// The same for the path of a file, cut after 512 bytes.
std::string ShownPath(std::string_view path);
// The same in single quotes, for sentences.
std::string QuotedPath(std::string_view path);

}  // namespace vexa::cluster
