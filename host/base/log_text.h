// Texts that others chose, made fit for the cluster log.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace vexa::cluster {

// `text` as one line of valid UTF-8 of at most `max_bytes` (at least 3): a blank for each control character and line
// separator, U+FFFD for each byte that is no UTF-8, and "…" in the place of what is too much.
std::string LogText(std::string_view text, std::size_t max_bytes);

// The same for the path of a file, which is cut after 512 bytes.
std::string ShownPath(std::string_view path);

}  // namespace vexa::cluster
