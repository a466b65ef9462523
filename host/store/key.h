// Keys of the store: paths of encoded segments. A segment can be any string, also one with slashes.
#pragma once

#include <initializer_list>
#include <optional>
#include <string>
#include <string_view>

namespace vexa::store {

// The longest key that can be stored, in bytes.
inline constexpr std::size_t kMaxKeyBytes = 511;

// `segment` with every byte except A-Z a-z 0-9 - _ . ~ : @ + as %XX (upper-case hex). In a segment of dots only, the
// first dot is encoded; the empty segment is "%". So no segment is empty, contains a slash, or is "." or "..".
std::string EncodeSegment(std::string_view segment);

// The inverse; not set when `encoded` is not a possible result of EncodeSegment.
std::optional<std::string> DecodeSegment(std::string_view encoded);

// "/a/b/c" for {"a", "b", "c"}, each encoded.
std::string MakeKey(std::initializer_list<std::string_view> segments);

// Whether `key` can be stored: MakeKey can return it for at least one segment, and it is not longer than kMaxKeyBytes.
bool IsValidKey(std::string_view key);

// Whether `key` is `prefix` or lies below it: "/a/b" contains "/a/b" and "/a/b/c", not "/a/bc". The empty prefix
// contains everything.
bool IsAtOrBelow(std::string_view key, std::string_view prefix);

}  // namespace vexa::store
