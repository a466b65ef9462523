// Formats the times in replies.
#pragma once

#include <json/value.h>

#include <cstdint>
#include <ctime>
#include <string>

namespace vexa::cli {

// "14:02:11" for a time on the day of `now`, otherwise "2026-11-22 14:02:11", in local time. `seconds` are Unix
// seconds.
std::string FormatTime(std::int64_t seconds, std::time_t now);

// "7 s", "3 min", "5 h", "2 d". Negative ages are 0 s.
std::string FormatAge(std::int64_t seconds);

// The state `element`[`member`] and, for a host that is inaccessible, since when: "inaccessible since 14:02:11", and
// for other states "shutdown (host inaccessible since 14:02:11)".
std::string StateText(const Json::Value& element, const char* member);

// "7 s ago" based on `element`["age_s"]; empty without it.
std::string AgeText(const Json::Value& element);

// A copy of the list for a table: states as StateText returns them, ages as FormatAge does.
Json::Value WithStateTexts(const Json::Value& list, const char* member);

}  // namespace vexa::cli
