#include "host/cache/cache_record.h"

#include <fmt/format.h>

#include <ctime>
#include <utility>

#include "host/base/json_parse.h"
#include "host/records/record_names.h"
#include "json/readers.h"

namespace vexa::cache {
namespace {

// In Unix seconds.
std::int64_t Now() {
  timespec now{};
  ::clock_gettime(CLOCK_REALTIME, &now);
  return now.tv_sec;
}

Json::Value MakeInfo(const std::string& group, const std::string& name, Json::Int64 time, int valid_s) {
  Json::Value info(Json::objectValue);
  info["group"] = group;
  info["name"] = name;
  info["time"] = time;
  info["valid_s"] = valid_s;
  return info;
}

bool IsString(const Json::Value& value, const std::string& string) {
  return value.isString() && json::String(value) == string;
}

}  // namespace

Result<CacheRecord> ParseCacheRecord(std::string_view text, const std::string& group, const std::string& name) {
  Result<Json::Value> parsed = ParseJson(text, records::InternedName);
  if (!parsed) return parsed.error();
  const Json::Value& record = *parsed;
  const Json::Value& time = json::Member(record, "time");
  const Json::Value& valid_s = json::Member(record, "valid_s");
  if (!IsString(json::Member(record, "group"), group) || !IsString(json::Member(record, "name"), name) ||
      !time.isInt64() || !valid_s.isInt() || !json::FindMember(record, "data")) {
    return Error(ErrorCode::kInvalid, fmt::format("This is not a record of the cache '{}/{}'", group, name));
  }
  CacheRecord result;
  result.info = MakeInfo(group, name, json::Int64(time), json::Int(valid_s));
  result.data.swap((*parsed)["data"]);
  return result;
}

std::string SerializeCacheRecord(const std::string& group, const std::string& name, int valid_s,
                                 const Json::Value& data) {
  std::string text = json::ToText(MakeInfo(group, name, Now(), valid_s));
  text.back() = ',';
  text += "\"data\":";
  json::AppendText(text, data);
  text += '}';
  return text;
}

bool IsOutdated(const Json::Value& info, int valid_s) {
  const Json::Value& time = json::Member(info, "time");
  if (!time.isInt64() || valid_s <= 0) return true;
  const std::int64_t computed = json::Int64(time);
  const std::int64_t now = Now();
  return computed > now || computed < now - valid_s;
}

}  // namespace vexa::cache
