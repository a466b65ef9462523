// The two readers behind ParseJson. For host/base and its tests only.
//
// Why two: simdjson is fast and reads nearly all input, but alone it does not fulfil the contract of ParseJson. It
// reports an integer outside 64 bits, which is valid JSON, with the same error as a malformed number, and it names only
// the kind of a fault. JsonCpp reads whatever simdjson refuses: it reads such integers as doubles, and gives people who
// write manifests and requests by hand the line and column of a syntax error. Tests and the fuzzer compare the two.
#pragma once

#include <json/value.h>

#include <optional>
#include <string_view>

#include "host/base/json_parse.h"

namespace vexa {

// The fast reader. Returns nothing for invalid JSON and for some valid JSON, such as integers outside 64 bits. Whenever
// it returns a value, ReadWithJsoncpp would return the same value.
std::optional<Json::Value> ReadWithSimdjson(std::string_view text, InternName intern_name);

// The thorough reader, which reports what is wrong.
Result<Json::Value> ReadWithJsoncpp(std::string_view text);

}  // namespace vexa
