// One record of a cache: {"group", "name", "time", "valid_s", "data"}, with the Unix time in seconds.
#pragma once

#include <json/value.h>

#include <cstdint>
#include <string>
#include <string_view>

#include "host/base/result.h"

namespace vexa::cluster {

struct CacheRecord {
  Json::Value info;  // everything except the data
  Json::Value data;
};

// kInvalid: not JSON, not a cache record, or the record of another cache.
Result<CacheRecord> ParseCacheRecord(std::string_view text, const std::string& group, const std::string& name);

// A record of a value computed now.
std::string MakeCacheRecordText(const std::string& group, const std::string& name, int valid_s,
                                const Json::Value& data);

// Whether a value with this information is older than `valid_s` seconds, is from the future, or has no time. Because
// times are whole seconds, a value may stay current for up to one second longer. If `valid_s` is not positive, every
// value is outdated.
bool IsOutdated(const Json::Value& info, int valid_s);

}  // namespace vexa::cluster
