// The two readers behind ParseJson. For host/base and its tests only.
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
