#include "host/api/user/log_api.h"

#include <fmt/format.h>

#include <cstdint>
#include <cstdio>
#include <ctime>
#include <map>
#include <optional>
#include <string>
#include <utility>

#include "host/api/rows.h"
#include "host/cluster/cluster_log.h"
#include "host/records/keys.h"
#include "host/records/object_members.h"
#include "host/records/request_scope.h"
#include "json/readers.h"
#include "webapi/platform/ccc.h"
#include "webapi/utils/utils.h"

namespace vexa::api {
namespace {

using cluster::LogEntry;

constexpr int kDefaultPage = 100;
constexpr std::int64_t kMicroseconds = 1'000'000;

// "2026-03-01T12:00:00.000000Z" (RFC 3339).
std::string FormatTime(std::int64_t time_us) {
  const std::time_t seconds = time_us / kMicroseconds;
  std::tm utc{};
  if (::gmtime_r(&seconds, &utc) == nullptr) return "";  // the year is out of range
  char text[64];
  const std::size_t length = std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S", &utc);
  std::snprintf(text + length, sizeof text - length, ".%06dZ", static_cast<int>(time_us % kMicroseconds));
  return text;
}

// The names of hosts, each looked up once.
class HostNames {
 public:
  explicit HostNames(const records::Reader& reader) : reader_(reader) {}

  const std::string& Of(const std::string& host_id) {
    const auto [at, is_new] = names_.try_emplace(host_id);
    if (is_new) at->second = records::ReadStringOrEmpty(reader_, VexaCCC::DB::DashCate::Host, host_id, keys::name);
    return at->second;
  }

 private:
  const records::Reader& reader_;
  std::map<std::string, std::string> names_;
};

Json::Value Describe(const LogEntry& entry, HostNames& names) {
  Json::Value data(Json::objectValue);
  data["position"] = Json::Int64{entry.position};
  data["time"] = FormatTime(entry.time_us);
  data["time_us"] = Json::Int64{entry.time_us};
  data["count"] = entry.count;
  data["first_time_us"] = Json::Int64{entry.first_time_us};
  data["host_id"] = entry.host_id;
  data["host"] = names.Of(entry.host_id);
  data["user"] = entry.user;
  data["priority"] = entry.priority;
  data["text"] = entry.text;
  data["request_id"] = entry.request_id;
  return data;
}

// Reads a position, which does not fit into the 32-bit integers of GetAndCheckInt. Not set when it is absent or not
// valid; `is_invalid` reports which.
std::optional<std::int64_t> ReadPosition(const Call& call, const char* name, bool& is_invalid) {
  is_invalid = false;
  if (!call.request->HasParam(name)) return std::nullopt;
  const Json::Value value = call.request->GetParam(name, Json::Value());
  // jsoncpp treats a double without a fraction as an integer.
  const bool is_integer = value.type() == Json::intValue || value.type() == Json::uintValue;
  is_invalid = !is_integer || !value.isInt64() || json::Int64(value) < 0;
  return is_invalid ? std::nullopt : std::optional(json::Int64(value));
}

void Respond(const records::Reader& reader, const Call& call, const std::vector<LogEntry>& entries,
             const std::string& next) {
  HostNames names(reader);
  Json::Value data(Json::objectValue);
  Json::Value& list = data["entries"] = Json::Value(Json::arrayValue);
  for (const LogEntry& entry : entries) list.append(Describe(entry, names));
  data["next"] = next;
  call.response->SetSuccess(data);
}

int CodeOf(const Error& error) {
  return error.code() == ErrorCode::kInvalid ? user_error::kBadParameter : user_error::kNotFoundOrUnreadable;
}

void ListEntries(const Call& call) {
  if (!VexaVirtualization::IsAdminOrAdvancedUser(call.request)) {
    SetHint(call, "An administrator can make a user advanced with 'vexa user advanced USER'.");
    return Fail(call, user_error::kNotPermitted, "The cluster log is for administrators and advanced users.");
  }
  const auto cursor = call.request->GetAndCheckString("cursor", kOptional);
  const auto limit = call.request->GetAndCheckInt(
      "limit", kOptional, [](const int& n) { return n >= 1 && n <= static_cast<int>(cluster::kMaxLogPage); });
  bool is_after_invalid = false;
  const std::optional<std::int64_t> after = ReadPosition(call, "after", is_after_invalid);
  if (cursor.IsInvalid() || limit.IsInvalid() || is_after_invalid) return Fail(call, user_error::kBadParameter);
  if (after && cursor.IsSet()) {
    return Fail(call, user_error::kBadParameter,
                "Only one of 'cursor', which is that of a reply, and 'after', a position, can be given.");
  }
  const auto reader = records::ReaderOfRequest();
  if (!reader) return FailUnreadable(call, reader.error());
  const auto count = static_cast<std::size_t>(limit.IsSet() ? limit.Get() : kDefaultPage);
  if (after) {
    const auto entries = cluster::ReadLogAfter(**reader, *after, count);
    return entries ? Respond(**reader, call, *entries, "") : Fail(call, CodeOf(entries.error()));
  }
  const auto page = cluster::ReadLog(**reader, cursor.Get(), count);
  return page ? Respond(**reader, call, page->entries, page->next) : Fail(call, CodeOf(page.error()));
}

}  // namespace

std::vector<ApiRow> LogRows() {
  return {
      UserRow("VEXA.Virtualization.Log", "list", LaneKind::kQuick, ListEntries,
              "The cluster log, newest entries first; \"next\" is the cursor of older ones, empty on the last page. "
              "With \"after\": the entries added after that one, oldest first; following with the \"position\" "
              "of the last entry misses none and repeats none. For administrators and advanced users.",
              {{"cursor", ParameterType::kString, Necessity::kOptional, "The \"next\" of the previous page."},
               {"limit", ParameterType::kInteger, Necessity::kOptional,
                "The maximum number of entries, 1 to 1000 (default: 100)."},
               {"after", ParameterType::kInteger, Necessity::kOptional,
                "The \"position\" of an entry, or 0: only entries that were added later. Not together with a cursor."}},
              {user_error::kBadParameter, user_error::kNotFoundOrUnreadable, user_error::kNotPermitted})};
}

}  // namespace vexa::api
