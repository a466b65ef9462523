#include "host/api/user/guest_state_api.h"

#include <memory>
#include <optional>
#include <set>
#include <string>
#include <utility>

#include "host/api/rows.h"
#include "host/api/user/gone_host.h"
#include "host/api/user/guest_parts_state.h"
#include "host/cluster/ha_group.h"
#include "host/records/reading.h"
#include "json/readers.h"
#include "webapi/platform/ccc.h"
#include "webapi/platform/ccc_ha.h"
#include "webapi/utils/utils.h"

namespace vexa::services {
namespace {

namespace json = VexaVirtualization::json;
namespace keys = VexaCCC::DB::_k;
using VexaCCC::DB::Dashboard;
using VexaCCC::DB::DashCate;
using webapi::Call;

// The guests that the caller may see; not set: all. False: unknown.
bool FindPermitted(const Call& call, std::optional<std::set<std::string>>& permitted) {
  if (call.request->IsAdmin()) return true;
  permitted.emplace();
  return VexaCCC::gaUserListAvail(call.request->GetLoginUserName(), keys::guest, *permitted) == 0;
}

void Fill(const ShownGuest& guest, Json::Value& shown) {
  shown["guest_id"] = guest.id;
  shown["guest_name"] = guest.name;
  shown["host_id"] = guest.host_id;
  shown["status"] = guest.shown.state;
  shown["status_type"] = guest.shown.type;
}

void List(GuestStates& states, const Call& call) {
  const Result<GuestListing> listing = states.List();
  if (!listing) return Fail(call, kErrorUnreadable);
  std::optional<std::set<std::string>> permitted;
  if (!FindPermitted(call, permitted)) return Fail(call, kErrorUnreadable);
  Json::Value data(Json::objectValue);
  Json::Value& guests = data["guests"] = Json::Value(Json::arrayValue);
  for (const auto& guest : *listing->guests) {
    if (permitted && !permitted->contains(guest->id)) continue;
    Json::Value& shown = guests.append(Json::Value(Json::objectValue));
    Fill(*guest, shown);
    ShowAge(*guest, *listing, shown);
  }
  call.response->SetSuccess(data);
}

// What is shown for the guest's high-availability group; null without one, or when it cannot be read.
Json::Value HaOf(const Json::Value& guest) {
  const std::string group_id = json::String(json::Member(guest, keys::ha_group_id));
  Json::Value group;
  if (group_id.empty() || Dashboard(cluster::kHaGroup, group_id).Get(group, keys::object) != 0) return {};
  Json::Value info(Json::objectValue);
  info["ha"] = cluster::HaInfoOf(group);
  Json::Value warnings(Json::objectValue);
  (void)VexaCCC::haWarnGet(group_id, warnings);
  std::string warning;
  Json::Value shown(Json::objectValue);
  Json::Value& hosts = shown["hosts"] = Json::Value(Json::arrayValue);
  VexaVirtualization::GetHAWarnReason(info["ha"], warnings, warning, hosts);
  std::string state;
  std::string type;
  std::string reason;
  VexaVirtualization::GetGuestHAStateType(guest, info, state, type, reason);
  shown["status"] = state;
  shown["status_type"] = type;
  shown["status_reason"] = reason;
  return shown;
}

void ShowStatus(GuestStates& states, const Call& call) {
  const auto id = call.request->GetAndCheckString("guest_id", kRequired, VexaCCC::Utils::isUUID);
  if (id.IsInvalid()) return Fail(call, webapi::kErrorBadParameter);
  if (!VexaVirtualization::IsGuestPermitted(call.request, id.Get())) return Fail(call, kErrorNotPermitted);
  cluster::RequestScope::ReleaseSnapshot();  // while it waits for links
  const std::shared_ptr<const GuestLinks> links = states.links().Get();
  Json::Value record;
  if (Dashboard(DashCate::Guest, id.Get()).Get(record, keys::object) != 0) return Fail(call, kErrorUnreadable);
  const GuestStatus status = StatusOf(id.Get(), record, *links);
  Json::Value data(Json::objectValue);
  Fill(status.guest, data);
  data["status_reason"] = status.reason;
  ShowAge(status.guest, *links, LifeOrAlive(status.guest.host_id), LifeOrAlive(status.guest.repository_host_id), data);
  data["disks"] = DiskStatesOf(record);
  if (Json::Value shutdown = ShutdownOf(id.Get(), record); !shutdown.isNull()) data["shutdown"] = std::move(shutdown);
  if (Json::Value ha = HaOf(record); !ha.isNull()) data["ha"] = std::move(ha);
  call.response->SetSuccess(data);
}

}  // namespace

std::vector<webapi::ApiRow> GuestStateRows(GuestStates& states) {
  using webapi::Access;
  using webapi::LaneKind;
  return {
      {.api = "VEXA.Virtualization.Guest",
       .method = "list",
       .version = 1,
       .access = Access::kUser,
       .lane = LaneKind::kQuick,
       .handler = [&states](const Call& call) { List(states, call); },
       .summary = "The guests that the caller may use: id, name, host, state and severity now, and how old that is.",
       .parameters = {},
       .errors = {kErrorUnreadable}},
      {.api = "VEXA.Virtualization.Guest",
       .method = "status",
       .version = 1,
       .access = Access::kUser,
       .lane = LaneKind::kQuick,
       .handler = [&states](const Call& call) { ShowStatus(states, call); },
       .summary = "One guest's state now, with severity, reason and age, those of its disks, why it is off, and its "
                  "high availability.",
       .parameters = {Text("guest_id", "The guest's id, a UUID.")},
       .errors = {webapi::kErrorBadParameter, kErrorUnreadable, kErrorNotPermitted}}};
}

}  // namespace vexa::services
