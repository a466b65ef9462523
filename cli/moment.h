// Times in replies, as words.
#pragma once

#include <json/value.h>

#include <cstdint>
#include <ctime>
#include <string>

namespace vexa::cli {

// "14:02:11" for a time on the day of `now`, otherwise "2026-11-22 14:02:11", in local time. `seconds` are Unix
// seconds.
std::string Moment(std::int64_t seconds, std::time_t now);

// "7 s", "3 min", "5 h", "2 d". Negative ages are 0 s.
std::string Age(std::int64_t seconds);

// The state `element`[`member`] with what is known about a host that is gone: "inaccessible since 14:02:11", and for
// other states "shutdown (host inaccessible since 14:02:11)".
std::string StateInWords(const Json::Value& element, const char* member);

// "7 s ago" based on `element`["age_s"]; empty without it.
std::string AsOf(const Json::Value& element);

// The list with its states as above, and the ages in words, for a table.
Json::Value WithStatesInWords(const Json::Value& list, const char* member);

}  // namespace vexa::cli
