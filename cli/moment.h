// Times of replies in words.
#pragma once

#include <json/value.h>

#include <cstdint>
#include <ctime>
#include <string>

namespace vexa::cli {

// "14:02:11" of a time of the day of `now`, else "2026-11-22 14:02:11", in local time. `seconds` are Unix seconds.
std::string Moment(std::int64_t seconds, std::time_t now);

// "7 s", "3 min", "5 h", "2 d". Negative ages are 0 s.
std::string Age(std::int64_t seconds);

// The state `element`[`member`] with what is known of a host that is gone: "inaccessible since 14:02:11", and of other
// states "shutdown (host inaccessible since 14:02:11)".
std::string StateInWords(const Json::Value& element, const char* member);

// "7 s ago" by `element`["age_s"]; empty without one.
std::string AsOf(const Json::Value& element);

// The list with its states in words as above, and the ages: to be shown as a table.
Json::Value WithStatesInWords(const Json::Value& list, const char* member);

}  // namespace vexa::cli
