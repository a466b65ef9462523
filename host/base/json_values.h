// How many values a JSON text has, without parsing it.
#pragma once

#include <cstddef>
#include <string_view>

namespace vexa {

// The number of values: objects, arrays, strings, numbers, booleans and nulls, at every level; the names of members do
// not count. Exact for valid JSON; `limit` + 1 when there are more than `limit`. A parsed value takes dozens of times
// the three bytes that an empty one has in a text from outside, so texts are checked with this before they are parsed.
// Reads the text once, to where the limit is exceeded, and allocates nothing.
std::size_t CountJsonValues(std::string_view text, std::size_t limit);

}  // namespace vexa
