#include "host/api/user/host_api.h"

#include <chrono>
#include <string>
#include <utility>

#include "host/api/rows.h"
#include "host/api/user/gone_host.h"
#include "host/api/user/host_list_api.h"
#include "json/readers.h"
#include "webapi/guest/guest.h"
#include "webapi/platform/ccc.h"
#include "webapi/utils/utils.h"

namespace vexa::services {
namespace {

namespace json = VexaVirtualization::json;
namespace keys = VexaCCC::DB::_k;
using VexaCCC::DB::Dashboard;
using VexaCCC::DB::DashCate;
using webapi::Call;

Json::Value UtilizationParameters() {
  Json::Value parameters(Json::objectValue);
  parameters["resource"] = Json::Value(Json::arrayValue);
  for (const char* resource : {"cpu", "disk", "network"}) parameters["resource"].append(resource);
  return parameters;
}

// The contents of its record, which are known even when the host does not answer.
Json::Value FromRecord(const std::string& host_id, const Json::Value& record) {
  Json::Value host(Json::objectValue);
  host["host_id"] = host_id;
  host["state"] = std::string(HostStateWord(json::String(json::Member(record, keys::state))));
  ShowLife(LifeOrAlive(host_id), std::chrono::system_clock::now(), std::chrono::seconds(0), host);
  for (const char* name : {"name", "version", "addresses", "cpu_cores", "cpu_clock_speed", "ram_size", "started"}) {
    if (const Json::Value* member = json::FindMember(record, name)) host[name] = *member;
  }
  return host;
}

// Members of a host that does not answer are left out.
void AskHost(const std::string& host_id, Json::Value& host) {
  Json::Value answer;
  if (VexaVirtualization::GetSysInfo(host_id, answer)) host["system"] = std::move(answer);
  answer = Json::Value();
  if (VexaVirtualization::GetSysUtilization(host_id, UtilizationParameters(), answer)) {
    host["utilization"] = std::move(answer);
  }
  answer = Json::Value(Json::objectValue);
  // A partial answer is valid even when another host's record cannot be read.
  (void)VexaVirtualization::GetHostResourceInfo(true, answer);
  if (const Json::Value* resources = json::FindMember(answer, host_id)) host["resources"] = *resources;
  answer = Json::Value(Json::arrayValue);
  VexaVirtualization::GetAllInterfaceInfo(answer);
  host["interfaces"] = Json::Value(Json::arrayValue);
  for (const Json::Value& interface : json::Elements(answer)) {
    if (json::String(json::Member(interface, "host_id")) == host_id) host["interfaces"].append(interface);
  }
}

void HostGet(const Call& call) {
  const auto id = call.request->GetAndCheckString("host_id", kOptional, VexaCCC::Utils::isUUID);
  if (id.IsInvalid()) return Fail(call, webapi::kErrorBadParameter);
  const std::string host_id = id.IsSet() ? id.Get() : VexaCCC::DB::DBLocalhostID();
  Json::Value record;
  if (Dashboard(DashCate::Host, host_id).Get(record, keys::object) != 0) return Fail(call, kErrorUnreadable);
  Json::Value host = FromRecord(host_id, record);
  AskHost(host_id, host);
  call.response->SetSuccess(host);
}

void GuestInfo(const Call& call) {
  const auto id = call.request->GetAndCheckString("guest_id", kRequired, VexaCCC::Utils::isUUID);
  if (id.IsInvalid()) return Fail(call, webapi::kErrorBadParameter);
  if (!VexaVirtualization::IsGuestPermitted(call.request, id.Get())) return Fail(call, kErrorNotPermitted);
  Json::Value record;
  if (Dashboard(DashCate::Guest, id.Get()).Get(record, keys::object) != 0) return Fail(call, kErrorUnreadable);
  Json::Value info(Json::objectValue);
  info["guest_id"] = id.Get();
  info["answered"] = VexaVirtualization::Guest::GetInformation(id.Get(), record, info);
  call.response->SetSuccess(info);
}

}  // namespace

std::vector<webapi::ApiRow> HostQueryRows() {
  using webapi::Access;
  using webapi::LaneKind;
  return {{.api = "VEXA.Virtualization.Host",
           .method = "get",
           .version = 1,
           .access = Access::kAdministrator,
           .lane = LaneKind::kLong,
           .handler = HostGet,
           .summary = "One host: its record, and its system, load, free resources and interfaces when it answers.",
           .parameters = {{"host_id", webapi::ParameterType::kString, webapi::Necessity::kOptional,
                           "The host's id, a UUID; the host that is asked without it."}},
           .errors = {webapi::kErrorBadParameter, kErrorUnreadable}},
          {.api = "VEXA.Virtualization.Guest",
           .method = "info",
           .version = 1,
           .access = Access::kUser,
           .lane = LaneKind::kLong,
           .handler = GuestInfo,
           .summary = "What a running guest's host knows: addresses, uptime, and whether the guest's agent answers.",
           .parameters = {Text("guest_id", "The guest's id, a UUID.")},
           .errors = {webapi::kErrorBadParameter, kErrorUnreadable, 409}}};
}

}  // namespace vexa::services
