// The record of a cache: {"group", "name", "time", "valid_s", "data"}. "time" is when the value was computed, in Unix
// seconds; "valid_s" is how long it stays current; "data" is the value.
#pragma once

#include <json/value.h>

#include <cstdint>
#include <string>
#include <string_view>

#include "host/base/result.h"

namespace vexa::cache {

struct CacheRecord {
  Json::Value info;  // everything except the data
  Json::Value data;
};

// kInvalid: not JSON, or not the record of this cache.
Result<CacheRecord> ParseCacheRecord(std::string_view text, const std::string& group, const std::string& name);

// The JSON text of a record whose value was computed now.
std::string SerializeCacheRecord(const std::string& group, const std::string& name, int valid_s,
                                 const Json::Value& data);

// Whether a value with CacheRecord::info is older than `valid_s` seconds, is from the future, or has no time. Because
// times are whole seconds, a value may stay current for up to one second longer. If `valid_s` is not positive, every
// value is outdated.
bool IsOutdated(const Json::Value& info, int valid_s);

}  // namespace vexa::cache
