// The two readers behind ParseJson. For host/base and its tests only.
#pragma once

#include <json/value.h>

#include <optional>
#include <string_view>

#include "host/base/json_parse.h"

namespace vexa {

// The quick one. Nothing for a text that it refuses, and for some that are JSON: integers outside 64 bits among them.
// What it accepts means the same to the other one.
std::optional<Json::Value> ReadWithSimdjson(std::string_view text, LastingName lasting_name);

// The thorough one, which tells what is wrong.
Result<Json::Value> ReadWithJsoncpp(std::string_view text);

}  // namespace vexa
