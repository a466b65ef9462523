#include "host/api/user/guest_state_api.h"

#include <memory>
#include <optional>
#include <set>
#include <string>
#include <utility>

#include "host/api/rows.h"
#include "host/api/user/guest_live_api.h"
#include "host/api/user/guest_parts_state.h"
#include "host/api/user/unreachable_host.h"
#include "host/cluster/ha_group.h"
#include "host/guests/creation/creation.h"
#include "host/records/keys.h"
#include "host/records/object_members.h"
#include "host/records/request_scope.h"
#include "json/readers.h"
#include "webapi/platform/ccc.h"
#include "webapi/platform/ccc_ha.h"
#include "webapi/utils/utils.h"

namespace vexa::api {
namespace {

using VexaCCC::DB::Dashboard;
using VexaCCC::DB::DashCate;

// The guests that the caller may see; not set: all. Returns false when they cannot be determined.
bool FindPermitted(const Call& call, std::optional<std::set<std::string>>& permitted) {
  if (call.request->IsAdmin()) return true;
  permitted.emplace();
  return VexaCCC::gaUserListAvail(call.request->GetLoginUserName(), keys::guest, *permitted) == 0;
}

void Fill(const GuestView& guest, Json::Value& view) {
  view["guest_id"] = guest.id;
  view["guest_name"] = guest.name;
  view["host_id"] = guest.host_id;
  view["status"] = guest.displayed.state;
  view["status_type"] = guest.displayed.type;
}

void List(GuestStates& states, const Call& call) {
  const Result<GuestListing> listing = states.List();
  if (!listing) return FailUnreadable(call, listing.error());
  std::optional<std::set<std::string>> permitted;
  if (!FindPermitted(call, permitted)) {
    return Fail(call, user_error::kNotFoundOrUnreadable, "What was granted to you cannot be read now.");
  }
  Json::Value data(Json::objectValue);
  Json::Value& guests = data["guests"] = Json::Value(Json::arrayValue);
  for (const auto& guest : *listing->guests) {
    if (permitted && !permitted->contains(guest->id)) continue;
    Json::Value& view = guests.append(Json::Value(Json::objectValue));
    Fill(*guest, view);
    AddAge(*guest, *listing, view);
  }
  call.response->SetSuccess(std::move(data));
}

// The state of the guest's high-availability group; null without one, or when it cannot be read.
Json::Value HaOf(const Json::Value& guest) {
  const std::string group_id = json::String(json::Member(guest, keys::ha_group_id));
  Json::Value group;
  if (group_id.empty() || Dashboard(cluster::kHaGroup, group_id).Get(group, keys::object) != 0) return {};
  Json::Value info(Json::objectValue);
  info["ha"] = cluster::HaInfoOf(group);
  Json::Value warnings(Json::objectValue);
  (void)VexaCCC::haWarnGet(group_id, warnings);
  std::string warning;
  Json::Value ha(Json::objectValue);
  Json::Value& hosts = ha["hosts"] = Json::Value(Json::arrayValue);
  VexaVirtualization::GetHAWarnReason(info["ha"], warnings, warning, hosts);
  std::string state;
  std::string type;
  std::string reason;
  VexaVirtualization::GetGuestHAStateType(guest, info, state, type, reason);
  ha["status"] = state;
  ha["status_type"] = type;
  ha["status_reason"] = reason;
  return ha;
}

// In a scope of its own, so that no snapshot stays open while the call waits for links.
bool IsPermitted(const Call& call, const std::string& guest_id) {
  const records::RequestScope scope;
  return VexaVirtualization::IsGuestPermitted(call.request, guest_id);
}

void GetStatus(GuestStates& states, const Call& call) {
  const auto id = call.request->GetAndCheckString("guest_id", kRequired, VexaCCC::Utils::isUUID);
  if (id.IsInvalid()) return Fail(call, user_error::kBadParameter);
  if (!IsPermitted(call, id.Get())) return Fail(call, user_error::kNotPermitted);
  const std::shared_ptr<const GuestLinkStates> links = states.links().Get();
  const auto reader = records::ReaderOfRequest();
  if (!reader) return FailUnreadable(call, reader.error());
  const auto record = records::ReadMember(**reader, DashCate::Guest, id.Get(), keys::object);
  if (!record) return FailUnreadable(call, record.error());
  if (!*record) return Fail(call, user_error::kNotFoundOrUnreadable, "The guest does not exist.");
  const GuestStatus status = StatusOf(**reader, id.Get(), **record, *links);
  Json::Value data(Json::objectValue);
  Fill(status.guest, data);
  data["status_reason"] = status.reason;
  AddAge(status.guest, *links, LivenessOrAlive(**reader, status.guest.host_id),
         LivenessOrAlive(**reader, status.guest.repository_host_id), data);
  if (const auto progress = records::ReadMember(**reader, DashCate::Guest, id.Get(), guests::kProgress);
      progress && *progress && (*progress)->isInt()) {
    data[guests::kProgress] = **progress;
  }
  data["disks"] = DiskStatesOf(**reader, **record);
  if (Json::Value shutdown = ShutdownOf(**reader, id.Get(), **record); !shutdown.isNull()) {
    data["shutdown"] = std::move(shutdown);
  }
  if (Json::Value ha = HaOf(**record); !ha.isNull()) data["ha"] = std::move(ha);
  if (Json::Value notes = NotesOf(**reader, id.Get(), **record); !notes.empty()) data["notes"] = std::move(notes);
  AddPending(call, id.Get(), data);
  call.response->SetSuccess(data);
}

}  // namespace

std::vector<ApiRow> GuestStateRows(GuestStates& states) {
  return {UserRow("VEXA.Virtualization.Guest", "list", LaneKind::kQuick,
                  [&states](const Call& call) { List(states, call); },
                  "The guests that the caller may use: id, name, host, state and severity now, and how old that is.",
                  {}, {user_error::kNotFoundOrUnreadable}),
          UserRow("VEXA.Virtualization.Guest", "status", LaneKind::kLong,
                  [&states](const Call& call) { GetStatus(states, call); },
                  "One guest's state now, with severity, reason and age, those of its disks, why it is off, its "
                  "high availability, what waits for its next start, and notes about what it runs without.",
                  {Text("guest_id", "The guest's id, a UUID.")},
                  {user_error::kBadParameter, user_error::kNotFoundOrUnreadable, user_error::kNotPermitted})};
}

}  // namespace vexa::api
