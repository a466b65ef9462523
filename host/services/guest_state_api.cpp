#include "host/services/guest_state_api.h"

#include <map>
#include <set>
#include <string>
#include <utility>

#include "host/cluster/ha_group.h"
#include "host/services/guest_parts_state.h"
#include "host/services/rows.h"
#include "webapi/guest/guest_uistate_cache.h"
#include "webapi/platform/ccc.h"
#include "webapi/platform/ccc_ha.h"
#include "webapi/utils/json.h"
#include "webapi/utils/utils.h"

namespace vexa::services {
namespace {

namespace json = VexaVirtualization::json;
namespace keys = VexaCCC::DB::_k;
using VexaCCC::DB::Dashboard;
using VexaCCC::DB::DashCate;
using VexaVirtualization::UIState;
using webapi::Call;

constexpr int kNotPermitted = 409;

std::string ReadText(const std::string& guest_id, const char* key) {
  std::string text;
  (void)Dashboard(DashCate::Guest, guest_id).Get(text, key);
  return text;
}

// The guests that the caller may see, in the platform's order. False: that cannot be told.
bool ListPermitted(const Call& call, std::vector<std::string>& ids) {
  if (DashCate::Guest.List(ids) != 0) return false;
  if (call.request->IsAdmin()) return true;
  std::set<std::string> granted;
  if (VexaCCC::gaUserListAvail(call.request->GetLoginUserName(), keys::guest, granted) != 0) return false;
  std::erase_if(ids, [&](const std::string& id) { return !granted.contains(id); });
  return true;
}

// A guest that is too new for the kept states is shown by its own.
UIState StateOf(const std::string& guest_id, const std::map<std::string, UIState>& kept) {
  if (const auto found = kept.find(guest_id); found != kept.end()) return found->second;
  UIState state;
  VexaVirtualization::GetStateType(VexaVirtualization::STATE_CATE_GUEST, ReadText(guest_id, keys::state), state);
  return state;
}

void List(const Call& call) {
  std::vector<std::string> ids;
  if (!ListPermitted(call, ids)) return Fail(call, kErrorUnreadable);
  std::map<std::string, UIState> kept;
  // Nothing is kept when it fails, and each guest is shown by its own state.
  (void)VexaVirtualization::GetCachedGuestUIStateDict(kept);
  Json::Value data(Json::objectValue);
  Json::Value& guests = data["guests"] = Json::Value(Json::arrayValue);
  for (const std::string& id : ids) {
    const UIState state = StateOf(id, kept);
    Json::Value guest(Json::objectValue);
    guest["guest_id"] = id;
    guest["guest_name"] = ReadText(id, keys::name);
    guest["host_id"] = ReadText(id, keys::host_id);
    guest["status"] = state.state;
    guest["status_type"] = state.type;
    guests.append(std::move(guest));
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

void Status(const Call& call) {
  const auto id = call.request->GetAndCheckString("guest_id", kRequired, VexaCCC::Utils::isUUID);
  if (id.IsInvalid()) return Fail(call, webapi::kErrorBadParameter);
  if (!VexaVirtualization::IsGuestPermitted(call.request, id.Get())) return Fail(call, kNotPermitted);
  Json::Value record;
  if (Dashboard(DashCate::Guest, id.Get()).Get(record, keys::object) != 0) return Fail(call, kErrorUnreadable);
  std::map<std::string, int> connected;
  // Without the links the guest counts as connected.
  (void)VexaVirtualization::GetGuestsConnectedMap(connected);
  std::string state = ReadText(id.Get(), keys::state);
  std::string shown;
  std::string type;
  std::string reason;
  VexaVirtualization::GetGuestStateType(record, connected, id.Get(), state, shown, type, reason);
  Json::Value data(Json::objectValue);
  data["guest_id"] = id.Get();
  data["guest_name"] = json::String(json::Member(record, keys::name));
  data["host_id"] = json::String(json::Member(record, keys::host_id));
  data["status"] = shown;
  data["status_type"] = type;
  data["status_reason"] = reason;
  data["disks"] = DiskStatesOf(record);
  if (Json::Value shutdown = ShutdownOf(id.Get(), record); !shutdown.isNull()) data["shutdown"] = std::move(shutdown);
  if (Json::Value ha = HaOf(record); !ha.isNull()) data["ha"] = std::move(ha);
  call.response->SetSuccess(data);
}

}  // namespace

std::vector<webapi::ApiRow> GuestStateRows() {
  using webapi::Access;
  using webapi::LaneKind;
  return {
      {.api = "VEXA.Virtualization.Guest",
       .method = "list",
       .version = 1,
       .access = Access::kUser,
       .lane = LaneKind::kQuick,
       .handler = List,
       .summary = "The guests that the caller may use: id, name, host, and the state and severity found out last.",
       .parameters = {},
       .errors = {kErrorUnreadable}},
      {.api = "VEXA.Virtualization.Guest",
       .method = "status",
       .version = 1,
       .access = Access::kUser,
       .lane = LaneKind::kLong,
       .handler = Status,
       .summary = "One guest's state now, with severity and reason, those of its disks, why it is off, and its high "
                  "availability.",
       .parameters = {Text("guest_id", "The guest's id, a UUID.")},
       .errors = {webapi::kErrorBadParameter, kErrorUnreadable, kNotPermitted}}};
}

}  // namespace vexa::services
