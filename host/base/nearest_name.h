// "Did you mean …?" for words that people type.
#pragma once

#include <span>
#include <string_view>

namespace vexa {

// The one of `known` that was probably intended by `word`; "" when none is similar enough: its edit distance
// (Levenshtein) is more than half of its length. Upper and lower case count as equal. Of several at the same distance,
// the first. Words over 64 bytes are similar to nothing. The result refers to the characters of `known`. Threads: any.
std::string_view NearestName(std::string_view word, std::span<const std::string_view> known);

}  // namespace vexa
