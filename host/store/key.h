// Keys of the store: paths whose segments can hold any text without leaving their place.
#pragma once

#include <initializer_list>
#include <optional>
#include <string>
#include <string_view>

namespace vexa::store {

// The longest key that can be stored, in bytes.
inline constexpr std::size_t kMaxKeyBytes = 511;

// `segment` with every byte but A-Z a-z 0-9 - _ . ~ : @ + as %XX (upper-case hex). Segments that consist of dots only
// have their first dot encoded; the empty segment is "%". So no segment is empty, holds a slash, or is "." or "..".
std::string EncodeSegment(std::string_view segment);

// The inverse; empty when `encoded` is not what EncodeSegment gives for any text.
std::optional<std::string> DecodeSegment(std::string_view encoded);

// "/a/b/c" for {"a", "b", "c"}, each encoded.
std::string MakeKey(std::initializer_list<std::string_view> segments);

// Whether `key` can be stored: what MakeKey gives for at least one segment, and not longer than kMaxKeyBytes.
bool IsKey(std::string_view key);

// Whether `key` is `prefix` or lies below it: "/a/b" holds "/a/b" and "/a/b/c", not "/a/bc". The empty prefix holds
// all.
bool IsAtOrBelow(std::string_view key, std::string_view prefix);

}  // namespace vexa::store
