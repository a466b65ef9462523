#include "host/cluster/log_state.h"

#include <algorithm>
#include <utility>

#include "host/base/json_parse.h"
#include "host/cluster/log_entry.h"
#include "host/store/key.h"
#include "json/readers.h"

namespace vexa::cluster {
namespace {

constexpr std::size_t kMaxTimes = 16;

constexpr char kCount[] = "count";
constexpr char kSinceRecount[] = "since_recount";
constexpr char kLast[] = "last";
constexpr char kTimes[] = "times";
constexpr char kHost[] = "host_id";
constexpr char kTime[] = "time_us";
constexpr char kLargest[] = "largest";

// Not set when the record is damaged or from a version that did not store hosts with the times.
std::optional<LogState> ParseLogState(std::string_view text) {
  const Result<Json::Value> value = ParseJson(text);
  if (!value || !value->isObject()) return std::nullopt;
  LogState state;
  state.last = json::Int64(json::Member(*value, kLast));
  state.count = json::UInt64(json::Member(*value, kCount));
  state.since_recount = json::UInt64(json::Member(*value, kSinceRecount));
  if (state.last <= 0 || state.last > kMaxLogPosition || state.count > kMaxPlausibleLogCount) return std::nullopt;
  for (const Json::Value& time : json::Elements(json::Member(*value, kTimes))) {
    const Json::Value& time_us = json::Member(time, kTime);
    if (!time_us.isInt64() || json::Int64(time_us) < 0) return std::nullopt;
    state.times.Add(json::StringMember(time, kHost), json::Int64(time_us));
  }
  if (state.times.all().empty()) return std::nullopt;
  state.largest = json::String(json::Member(*value, kLargest));
  return state;
}

Result<LogState> DeriveLogState(const records::Reader& reader) {
  LogState state;
  const Status scanned = reader.Scan(kLogPrefix, [&state](std::string_view key, const store::ValueView& value) {
    const auto position = LogPositionOf(key);
    if (!position) return true;
    ++state.count;
    if (*position <= kMaxBelievedLogTime) state.last = *position;
    if (const auto entry = ParseLogEntry(*position, value.text)) state.times.Add(entry->host_id, entry->time_us);
    return true;
  });
  if (!scanned) return scanned.error();
  return state;
}

}  // namespace

void LogTimes::Add(std::string host_id, std::int64_t time_us) {
  times_.push_back({std::move(host_id), time_us});
  if (times_.size() <= kMaxTimes) return;
  const auto is_of_other = [this](const Time& time) { return time.host_id != times_.back().host_id; };
  const bool is_last_other = is_of_other(times_.front()) && std::ranges::count_if(times_, is_of_other) == 1;
  times_.erase(times_.begin() + (is_last_other ? 1 : 0));
}

std::optional<std::int64_t> LogTimes::Earliest() const {
  if (times_.size() < kMaxTimes) return std::nullopt;
  return std::ranges::min(times_, {}, &Time::time_us).time_us;
}

std::string LogStateKey() { return store::MakeKey({"log_state"}); }

Result<LogState> LoadLogState(const records::Reader& reader) {
  const auto stored = reader.Get(LogStateKey());
  if (!stored) return stored.error();
  std::optional<LogState> state = *stored ? ParseLogState((*stored)->text) : std::nullopt;
  if (!state) {
    Result<LogState> derived = DeriveLogState(reader);
    if (!derived) return derived;
    state = *std::move(derived);
  } else if (state->since_recount >= kRecountAfter) {
    const Result<std::size_t> count = CountPositions(reader, kLogPrefix);
    if (!count) return count.error();
    state->count = *count;
    state->since_recount = 0;
  }
  state->revision = *stored ? (*stored)->revision : 0;
  return *std::move(state);
}

std::string SerializeLogState(const LogState& state) {
  Json::Value value(Json::objectValue);
  value[kCount] = static_cast<Json::UInt64>(state.count);
  value[kSinceRecount] = static_cast<Json::UInt64>(state.since_recount);
  value[kLast] = Json::Int64{state.last};
  value[kTimes] = Json::Value(Json::arrayValue);
  for (const LogTimes::Time& time : state.times.all()) {
    Json::Value& one = value[kTimes].append(Json::Value(Json::objectValue));
    one[kHost] = time.host_id;
    one[kTime] = Json::Int64{time.time_us};
  }
  if (!state.largest.empty()) value[kLargest] = state.largest;
  return json::ToText(value);
}

Result<std::size_t> CountPositions(const records::Reader& reader, std::string_view prefix) {
  std::size_t count = 0;
  const Status scanned = reader.Scan(std::string(prefix), [&](std::string_view key, const store::ValueView&) {
    if (LogPositionOf(key, prefix)) ++count;
    return true;
  });
  if (!scanned) return scanned.error();
  return count;
}

}  // namespace vexa::cluster
