// The two readers behind ParseJson. For host/base and its tests only.
//
// Why two: simdjson reads nearly all texts, but alone it cannot give what ParseJson promises. It reports an integer
// outside 64 bits, which is valid JSON, with the same error as a malformed number, and a fault only by its kind. The
// other reader runs for texts that simdjson refuses: it reads such integers as doubles, and says what is wrong, with
// line and column where it is the grammar, to people who write manifests and requests by hand. Tests and the fuzzer
// compare the two.
#pragma once

#include <json/value.h>

#include <optional>
#include <string_view>

#include "host/base/json_parse.h"

namespace vexa {

// The fast one. Returns nothing for a text that it refuses, and for some valid JSON, such as integers outside 64 bits.
// What it accepts means the same to the other reader.
std::optional<Json::Value> ReadWithSimdjson(std::string_view text, LastingName lasting_name);

// The thorough one, which reports what is wrong.
Result<Json::Value> ReadWithJsoncpp(std::string_view text);

}  // namespace vexa
