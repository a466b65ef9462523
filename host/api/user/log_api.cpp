#include "host/api/user/log_api.h"

#include <cstdint>
#include <cstdio>
#include <ctime>
#include <map>
#include <optional>
#include <string>
#include <utility>

#include "host/api/rows.h"
#include "host/cluster/cluster_log.h"
#include "json/readers.h"
#include "webapi/platform/ccc.h"
#include "webapi/utils/utils.h"

namespace vexa::services {
namespace {

namespace json = VexaVirtualization::json;
using cluster::LogEntry;
using webapi::Call;

constexpr int kDefaultPage = 100;
constexpr std::int64_t kMicroseconds = 1'000'000;

// "2026-03-01T12:00:00.000000Z" (RFC 3339).
std::string TimeText(std::int64_t time_us) {
  const std::time_t seconds = time_us / kMicroseconds;
  std::tm utc{};
  if (::gmtime_r(&seconds, &utc) == nullptr) return "";  // an impossible year
  char text[64];
  const std::size_t length = std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S", &utc);
  std::snprintf(text + length, sizeof text - length, ".%06dZ", static_cast<int>(time_us % kMicroseconds));
  return text;
}

// The names of hosts, each looked up once.
class HostNames {
 public:
  const std::string& Of(const std::string& host_id) {
    const auto [at, is_new] = names_.try_emplace(host_id);
    if (is_new) (void)VexaCCC::Utils::GetHostNameById(host_id, at->second);
    return at->second;
  }

 private:
  std::map<std::string, std::string> names_;
};

Json::Value Describe(const LogEntry& entry, HostNames& names) {
  Json::Value data(Json::objectValue);
  data["time"] = TimeText(entry.time_us);
  data["time_us"] = Json::Int64{entry.time_us};
  data["host_id"] = entry.host_id;
  data["host"] = names.Of(entry.host_id);
  data["user"] = entry.user;
  data["priority"] = entry.priority;
  data["text"] = entry.text;
  data["request_id"] = entry.request_id;
  return data;
}

// A time does not fit the integers of GetAndCheckInt. Not set: absent or invalid, as `is_wrong` says.
std::optional<std::int64_t> TimeOf(const Call& call, const char* name, bool& is_wrong) {
  is_wrong = false;
  if (!call.request->HasParam(name)) return std::nullopt;
  const Json::Value value = call.request->GetParam(name, Json::Value());
  // jsoncpp treats a double without a fraction as an integer.
  const bool is_integer = value.type() == Json::intValue || value.type() == Json::uintValue;
  is_wrong = !is_integer || !value.isInt64() || json::Int64(value) < 0;
  return is_wrong ? std::nullopt : std::optional(json::Int64(value));
}

void Answer(const Call& call, const std::vector<LogEntry>& entries, const std::string& next) {
  HostNames names;
  Json::Value data(Json::objectValue);
  Json::Value& list = data["entries"] = Json::Value(Json::arrayValue);
  for (const LogEntry& entry : entries) list.append(Describe(entry, names));
  data["next"] = next;
  call.response->SetSuccess(data);
}

int CodeOf(const Error& error) {
  return error.code() == ErrorCode::kInvalid ? webapi::kErrorBadParameter : kErrorUnreadable;
}

void ListEntries(const Call& call) {
  if (!VexaVirtualization::IsAdminOrAdvancedUser(call.request)) return Fail(call, kErrorNotPermitted);
  const auto cursor = call.request->GetAndCheckString("cursor", kOptional);
  const auto limit = call.request->GetAndCheckInt(
      "limit", kOptional, [](const int& n) { return n >= 1 && n <= static_cast<int>(cluster::kMaxLogPage); });
  bool after_is_wrong = false;
  const std::optional<std::int64_t> after = TimeOf(call, "after", after_is_wrong);
  if (cursor.IsInvalid() || limit.IsInvalid() || after_is_wrong || (after && cursor.IsSet())) {
    return Fail(call, webapi::kErrorBadParameter);
  }
  const auto count = static_cast<std::size_t>(limit.IsSet() ? limit.Get() : kDefaultPage);
  if (after) {
    const auto entries = cluster::ReadLogAfter(*after, count);
    return entries ? Answer(call, *entries, "") : Fail(call, CodeOf(entries.error()));
  }
  const auto page = cluster::ReadLog(cursor.Get(), count);
  return page ? Answer(call, page->entries, page->next) : Fail(call, CodeOf(page.error()));
}

}  // namespace

std::vector<webapi::ApiRow> LogRows() {
  using webapi::Necessity;
  using webapi::ParameterType;
  return {
      {.api = "VEXA.Virtualization.Log",
       .method = "list",
       .version = 1,
       .access = webapi::Access::kUser,
       .lane = webapi::LaneKind::kQuick,
       .handler = ListEntries,
       .summary =
           "The cluster log, newest entries first; \"next\" is the cursor of older ones, empty when there are "
           "none. With \"after\": the entries after that time, oldest first. For administrators and advanced users.",
       .parameters = {{"cursor", ParameterType::kString, Necessity::kOptional, "The \"next\" of a page."},
                      {"limit", ParameterType::kInteger, Necessity::kOptional,
                       "How many entries at most, 1 to 1000; 100 without it."},
                      {"after", ParameterType::kInteger, Necessity::kOptional,
                       "Microseconds since 1970, a \"time_us\": only later entries. Not together with a cursor."}},
       .errors = {webapi::kErrorBadParameter, kErrorUnreadable, kErrorNotPermitted}}};
}

}  // namespace vexa::services
