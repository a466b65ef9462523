#include "host/api/user/host_api.h"

#include <fmt/format.h>

#include <chrono>
#include <optional>
#include <string>
#include <utility>

#include "host/api/rows.h"
#include "host/api/user/host_list_api.h"
#include "host/api/user/simulated_guests.h"
#include "host/api/user/unreachable_host.h"
#include "host/cluster/settings.h"
#include "host/records/keys.h"
#include "host/records/object_members.h"
#include "host/records/request_scope.h"
#include "json/readers.h"
#include "webapi/guest/guest.h"
#include "webapi/platform/ccc.h"
#include "webapi/utils/utils.h"

namespace vexa::api {
namespace {

using VexaCCC::DB::Dashboard;
using VexaCCC::DB::DashCate;

Json::Value UtilizationParameters() {
  Json::Value parameters(Json::objectValue);
  parameters["resource"] = Json::Value(Json::arrayValue);
  for (const char* resource : {"cpu", "disk", "network"}) parameters["resource"].append(resource);
  return parameters;
}

// The members from the host's record, which are known even when the host does not answer. Not set when it cannot be
// read.
std::optional<Json::Value> FromRecord(const std::string& host_id) {
  const auto reader = records::ReaderOfRequest();
  if (!reader) return std::nullopt;
  const auto record = records::ReadMember(**reader, DashCate::Host, host_id, keys::object);
  if (!record || !*record) return std::nullopt;
  Json::Value host(Json::objectValue);
  host["host_id"] = host_id;
  host["state"] = std::string(HostStateName(json::String(json::Member(**record, keys::state))));
  AddLiveness(LivenessOrAlive(**reader, host_id), std::chrono::system_clock::now(), std::chrono::seconds(0), host);
  for (const char* name : {"name", "version", "addresses", "cpu_cores", "cpu_clock_speed", "ram_size", "started"}) {
    if (const Json::Value* member = json::FindMember(**record, name)) host[name] = *member;
  }
  const Result<bool> placement = cluster::ReadPlacement(**reader, host_id);
  host["placement"] = placement && *placement;
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
  // Intentional: the result is ignored, because a partial answer is valid even when another host's record cannot be
  // read.
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
  if (id.IsInvalid()) return Fail(call, user_error::kBadParameter);
  const std::string host_id = id.IsSet() ? id.Get() : VexaCCC::DB::DBLocalhostID();
  std::optional<Json::Value> host = FromRecord(host_id);
  if (!host) {
    return Fail(call, user_error::kNotFoundOrUnreadable, fmt::format("There is no host '{}' in the cluster.", host_id));
  }
  AskHost(host_id, *host);
  call.response->SetSuccess(*host);
  MarkSimulatedHost(call, host_id);
}

void GuestInfo(const Call& call) {
  const auto id = call.request->GetAndCheckString("guest_id", kRequired, VexaCCC::Utils::isUUID);
  if (id.IsInvalid()) return Fail(call, user_error::kBadParameter);
  if (!VexaVirtualization::IsGuestPermitted(call.request, id.Get())) return Fail(call, user_error::kNotPermitted);
  Json::Value record;
  if (Dashboard(DashCate::Guest, id.Get()).Get(record, keys::object) != 0)
    return Fail(call, user_error::kNotFoundOrUnreadable);
  Json::Value info(Json::objectValue);
  info["guest_id"] = id.Get();
  info["answered"] = VexaVirtualization::Guest::GetInformation(id.Get(), record, info);
  call.response->SetSuccess(info);
}

}  // namespace

std::vector<ApiRow> HostQueryRows() {
  return {AdministratorRow("VEXA.Virtualization.Host", "get", LaneKind::kLong, HostGet,
                           "One host: its record, and its system, load, free resources and interfaces when it answers.",
                           {{"host_id", ParameterType::kString, Necessity::kOptional,
                             "The host's id, a UUID (default: the host that is asked)."}},
                           {user_error::kBadParameter, user_error::kNotFoundOrUnreadable}),
          UserRow("VEXA.Virtualization.Guest", "info", LaneKind::kLong, GuestInfo,
                  "What a running guest's host knows: addresses, uptime, and whether the guest's agent answers.",
                  {Text("guest_id", "The guest's id, a UUID.")},
                  {user_error::kBadParameter, user_error::kNotFoundOrUnreadable, user_error::kNotPermitted})};
}

}  // namespace vexa::api
