// Arbitrary JSON as the reply of every host and as the records that are read with it: nothing throws, and every result
// has the expected form.
//
// The input's lines: the reply; the record of the host, of its network interface and of the guest; the value of the
// request. A line that is missing or not JSON is null.
#include <json/reader.h>

#include <algorithm>
#include <limits>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "fuzz/check.h"
#include "json/readers.h"
#include "tests/support/scripted_platform.h"
#include "tests/support/syslog_capture.h"
#include "webapi/guest/guest.h"
#include "webapi/guest/guest_uistate_cache.h"
#include "webapi/platform/ccc_constants.h"
#include "webapi/utils/utils.h"

namespace {

namespace json = VexaVirtualization::json;
using vexa::fuzz::Check;

constexpr const char* kHost = "h";

// As strict as the parser of replies, so that every value here could be in a reply.
Json::Value TakeJson(std::string_view& rest) {
  Json::CharReaderBuilder builder;
  Json::CharReaderBuilder::strictMode(&builder.settings_);
  builder["strictRoot"] = false;
  builder["stackLimit"] = 64;
  const std::string_view text = vexa::fuzz::TakeUntil(rest, "\n");
  Json::Value value;
  try {
    const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    if (!reader->parse(text.data(), text.data() + text.size(), &value, nullptr)) return Json::Value();
  } catch (const Json::Exception&) {  // too deep
    return Json::Value();
  }
  return value;
}

void CheckQueries(const Json::Value& requested, const VexaDRCore::Response& response) {
  const bool has_data = response.isSuccess() && response.hasData();
  Json::Value out = requested;
  const bool has_utilization = VexaVirtualization::GetSysUtilization(kHost, requested, out);
  Check(has_utilization == has_data, "utilization is returned when there is data");
  Check(has_utilization ? out.isObject() && out.isMember("memory") : out == requested,
        "it has memory, or is untouched");
  (void)VexaVirtualization::GetCpuUsage(out);
  (void)VexaVirtualization::GetFreeRamSize(out);
  out = requested;
  Check(VexaVirtualization::GetSysInfo(kHost, out) == has_data, "the system is returned when there is data");
  out = requested;
  Check(VexaVirtualization::GetVolumeInfo(kHost, requested, out) == has_data,
        "the volume is returned when there is data");
  out = requested;
  VexaVirtualization::GetVdiskUsage("g", kHost, out);
  Check(out["total_size"].type() == Json::uintValue && out["total_used"].type() == Json::uintValue,
        "totals are unsigned");
  out = requested;
  Check(VexaVirtualization::GetNetStat(kHost, json::String(requested), out) ? out.isObject() : out == requested,
        "a link is returned as an object, or the output is untouched");
}

void CheckClusterWide(const Json::Value& requested) {
  Json::Value out = requested;
  Check(VexaVirtualization::GetHostResourceInfo(true, out) == 0, "readable records are not an error");
  Check(out == requested || out[kHost]["free_cpu_ghz"].type() == Json::realValue,
        "a host is returned completely or not at all");
  out = requested;
  Check(VexaVirtualization::GetHostResourceInfo(false, out) == 0, "readable records are not an error");
  (void)VexaVirtualization::GetHostTotalMemory(kHost);
  out = requested;
  VexaVirtualization::GetAllInterfaceInfo(out);
  Check(out == requested || (out.isArray() && out[out.size() - 1]["host_id"] == kHost), "an interface has its host");
  std::string name;
  Check(VexaVirtualization::GetInterfaceNameById(kHost, "nic", name), "a readable record has a name");
  out = requested;
  Check(VexaVirtualization::GetDefaultVnic(out) == 0 && out.isArray(), "a new interface is appended");
  out = requested;
  Check(VexaVirtualization::MacAddrCheck(json::String(requested), out) == -1 && out.isObject(),
        "a conflict is reported");
}

void CheckGuest(const Json::Value& guest, const Json::Value& requested, const VexaDRCore::Response& response) {
  constexpr auto kUntouched = static_cast<VexaVirtualization::VMCHECK>(std::numeric_limits<int>::min());
  auto check = kUntouched;
  const int result = VexaVirtualization::CheckGuestRepoCap("g", check);
  Check(result == 0 || ((result == 404 || result == 407) && check == kUntouched), "a check is set or untouched");
  const int cleared = VexaVirtualization::ClearPollTaskOnHost(kHost, json::String(requested));
  Check(cleared == (response.isSuccess() ? 0 : -1), "a task is removed when the host reports success");
  Json::Value info = requested;
  (void)VexaVirtualization::Guest::GetInformation("g", guest, info);
  Check(info["uptime"].isString() && info.isMember("ip") && info.isMember("has_agent"), "three members are always set");
  info = guest;
  (void)VexaVirtualization::Guest::GetInformation("g", info, info);
}

// `requested` is also the record of the interface "v", which the guest "g" uses on the host.
void CheckStates(const Json::Value& guest, const Json::Value& requested) {
  std::map<std::string, int> connected;
  Check(VexaVirtualization::GetGuestsConnectedMap(connected), "links are returned when everything can be listed");
  Check(connected.contains("g"), "every guest has its links");
  std::string state = json::String(json::Member(guest, VexaCCC::DB::_k::state));
  std::string display_state;
  std::string type;
  std::string reason;
  VexaVirtualization::GetGuestStateType(guest, connected, "g", state, display_state, type, reason);
  Check(type == "healthy" || type == "warning" || type == "error", "a guest has a severity");
  Json::Value hosts(Json::arrayValue);
  std::string warning;
  VexaVirtualization::GetHAWarnReason(guest, requested, warning, hosts);
  Check(hosts.size() == json::Elements(json::Member(guest, "hosts")).size(), "every host of a group is returned");
  Json::Value info = requested;
  VexaVirtualization::GetGuestHAStateType(guest, info, display_state, type, reason);
  Json::Value errors = requested;
  VexaVirtualization::AppendError("a", 5, errors);
  VexaVirtualization::AppendError("a", "b", 5, errors);
  std::vector<VexaVirtualization::GuestUIStatus> statuses;
  const bool is_cache = VexaVirtualization::ParseGuestUIStatusCache(requested, statuses);
  Check(is_cache == json::Member(requested, "guests").isArray(), "a cached value has guests");
  (void)VexaVirtualization::JoinJsArray(requested, ",");
  (void)VexaVirtualization::IsContain(requested, "a");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::string_view rest = vexa::fuzz::Text(data, size);
  vexa::test::ResetPlatform();
  vexa::test::ClearCapturedSyslog();
  vexa::test::ScriptedPlatform& platform = vexa::test::Platform();
  const Json::Value reply = TakeJson(rest);
  platform.local_host_id = std::string(kHost);
  platform.all_hosts = {kHost};
  platform.replies[kHost] = reply;
  platform.records["host/h/object"] = TakeJson(rest);
  platform.records["host/h/nics/nic"] = TakeJson(rest);
  platform.children["host/h/nics"] = {"nic"};
  platform.address_check_result = 1;
  Json::Value guest = TakeJson(rest);
  if (guest.isObject()) {
    guest[VexaCCC::DB::_k::state] = VexaCCC::State::Guest::running;
    guest[VexaCCC::DB::_k::host_id] = kHost;
  }
  const Json::Value requested = TakeJson(rest);
  const VexaDRCore::Response response(reply);
  CheckQueries(requested, response);
  CheckClusterWide(requested);
  CheckGuest(guest, requested, response);
  platform.ids = {{"host", {kHost}}, {"guest", {"g"}}, {"vnic", {"v"}}};
  platform.records["guest/g/object"] = guest;
  platform.records["vnic/v/object"] = requested;
  platform.records["repository//state"] = VexaCCC::State::Repo::online;
  CheckStates(guest, requested);
  return 0;
}
