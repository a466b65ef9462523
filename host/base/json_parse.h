// Strict parsing of JSON text from outside: the network, a file, the store.
#pragma once

#include <json/value.h>

#include <cstddef>
#include <string_view>

#include "host/base/result.h"

namespace vexa {

inline constexpr int kMaxJsonDepth = 64;
inline constexpr std::size_t kMaxJsonReason = 200;

// Returns an interned copy of the member name `name`, which must outlive every parsed value, or null to let the value
// copy the name.
using InternName = const char* (*)(std::string_view name);

// Parses one JSON value.
// Refused (kInvalid, with the reason): anything that RFC 8259 does not allow, invalid UTF-8, a byte order mark,
// duplicate member names (compared after unescaping), text after the value, more than kMaxJsonDepth levels of nesting,
// an escaped surrogate without its other half ("\ud800"), a number too large for a double (1e999). The reason quotes at
// most kMaxJsonReason bytes of the text. Refused input yields no partial value.
// Accepted: any type of root value, "\u0000" in strings and names, integers outside 64 bits (read as doubles), numbers
// too small for a double (read as 0), -0 (read as the integer 0).
// Threads: any; each thread has its own reader.
Result<Json::Value> ParseJson(std::string_view text, InternName intern_name = nullptr);

// Whether `text` is well-formed UTF-8 (RFC 3629): no overlong forms, no surrogates, nothing above U+10FFFF.
bool IsValidUtf8(std::string_view text);

}  // namespace vexa
