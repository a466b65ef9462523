// One record of a cache: {"group", "name", "time", "valid_s", "data"}, with the Unix time in seconds.
#pragma once

#include <json/value.h>

#include <cstdint>
#include <string>
#include <string_view>

#include "host/base/result.h"

namespace vexa::cluster {

struct CacheRecord {
  Json::Value info;  // all but the data
  Json::Value data;
};

// kInvalid: no JSON, no such record, or the record of another cache.
Result<CacheRecord> ParseCacheRecord(std::string_view text, const std::string& group, const std::string& name);

// A record found now.
std::string MakeCacheRecordText(const std::string& group, const std::string& name, int valid_s,
                                const Json::Value& data);

// Whether a value with this information is older than `valid_s` seconds or from the future; so is one without a time.
// As times are whole seconds, a value may stay current for one second more. A `valid_s` that is not positive makes
// every value old.
bool IsOutdated(const Json::Value& info, int valid_s);

}  // namespace vexa::cluster
