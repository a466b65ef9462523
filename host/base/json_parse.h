// Strict parsing of JSON text that comes from outside: a network, a file, the store.
#pragma once

#include <json/value.h>

#include <cstddef>
#include <string_view>

#include "host/base/result.h"

namespace vexa {

inline constexpr int kMaxJsonDepth = 64;

// Parses one JSON value.
// Refused (kInvalid, with the reason): anything that RFC 8259 does not allow, invalid UTF-8, duplicate member names,
// text after the value, more than kMaxJsonDepth levels of nesting. The result never holds part of a refused text.
// Any thread; each keeps its own reader.
Result<Json::Value> ParseJson(std::string_view text);

// Whether `text` is well-formed UTF-8 (RFC 3629): no overlong forms, no surrogates, nothing above U+10FFFF.
bool IsValidUtf8(std::string_view text);

}  // namespace vexa
