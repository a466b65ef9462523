#include "host/cluster/log_entry.h"

#include <fmt/format.h>

#include <algorithm>
#include <charconv>

#include "host/base/json_parse.h"
#include "host/base/sanitize_for_log.h"
#include "host/store/key.h"
#include "json/readers.h"

namespace vexa::cluster {
namespace {

constexpr std::size_t kDigits = 20;
// The limit for names; the rest of an entry is for the text.
constexpr std::size_t kMaxNameBytes = 256;
// Room for the members that repetitions add.
constexpr std::size_t kRepetitionBytes = 80;

constexpr char kTime[] = "time_us";
constexpr char kFirstTime[] = "first_time_us";
constexpr char kHost[] = "host_id";
constexpr char kUser[] = "user";
constexpr char kPriority[] = "priority";
constexpr char kText[] = "text";
constexpr char kRequest[] = "request_id";
constexpr char kCount[] = "count";

std::int64_t ReadTime(const Json::Value& value, const char* name, std::int64_t otherwise) {
  const Json::Value& time = json::Member(value, name);
  return time.isInt64() && json::Int64(time) >= 0 ? json::Int64(time) : otherwise;
}

}  // namespace

std::string LogPositionText(std::int64_t position) { return fmt::format("{:020}", position); }

std::optional<std::int64_t> ParseLogPosition(std::string_view text) {
  const bool has_form =
      text.size() == kDigits && std::ranges::all_of(text, [](char c) { return c >= '0' && c <= '9'; });
  std::int64_t position = 0;
  if (!has_form || std::from_chars(text.data(), text.data() + text.size(), position).ec != std::errc() ||
      position > kMaxLogPosition) {
    return std::nullopt;
  }
  return position;
}

std::string LogEntryKey(std::int64_t position) { return store::MakeKey({"log", LogPositionText(position)}); }

std::optional<std::int64_t> LogPositionOf(std::string_view key, std::string_view prefix) {
  if (key.size() != prefix.size() + 1 + kDigits) return std::nullopt;
  return ParseLogPosition(key.substr(prefix.size() + 1));
}

std::string SerializeLogEntry(const LogEntry& entry) {
  Json::Value value(Json::objectValue);
  value[kTime] = Json::Int64{entry.time_us};
  value[kHost] = entry.host_id;
  value[kUser] = entry.user;
  value[kPriority] = entry.priority;
  value[kText] = entry.text;
  value[kRequest] = entry.request_id;
  if (entry.count > 1) {
    value[kCount] = entry.count;
    value[kFirstTime] = Json::Int64{entry.first_time_us};
  }
  return json::ToText(value);
}

std::optional<LogEntry> ParseLogEntry(std::int64_t position, std::string_view text) {
  const Result<Json::Value> value = ParseJson(text);
  if (!value || !value->isObject()) return std::nullopt;
  LogEntry entry;
  entry.position = position;
  // In entries of older versions the position is the time.
  entry.time_us = ReadTime(*value, kTime, position);
  entry.host_id = json::String(json::Member(*value, kHost));
  entry.user = json::String(json::Member(*value, kUser));
  entry.priority = json::Int(json::Member(*value, kPriority));
  entry.text = json::String(json::Member(*value, kText));
  entry.request_id = json::String(json::Member(*value, kRequest));
  entry.count = std::max(json::Int(json::Member(*value, kCount)), 1);
  entry.first_time_us = ReadTime(*value, kFirstTime, entry.time_us);
  return entry;
}

void LimitLogEntry(LogEntry& entry) {
  for (std::string* name : {&entry.host_id, &entry.user, &entry.request_id})
    *name = SanitizeForLog(*name, kMaxNameBytes);
  entry.text = SanitizeForLog(entry.text, kMaxLogEntryBytes);
  while (true) {
    const std::size_t size = SerializeLogEntry(entry).size() + kRepetitionBytes;
    if (size <= kMaxLogEntryBytes) return;
    // A byte of the text takes at most two in JSON, so this does not cut too much; the names' limit leaves room for
    // most of the text.
    const std::size_t surplus = (size - kMaxLogEntryBytes + 1) / 2;
    entry.text = SanitizeForLog(entry.text, entry.text.size() - surplus);
  }
}

}  // namespace vexa::cluster
