#include "host/api/user/grant_api.h"

#include <algorithm>
#include <utility>

#include "host/api/rows.h"
#include "host/base/error_table.h"
#include "host/base/uuid.h"
#include "host/cluster/account_commit.h"
#include "webapi/utils/utils.h"

namespace vexa::services {
namespace {

using cluster::AccountKind;
using cluster::GrantLevel;
using cluster::GrantPrincipal;
using cluster::GrantRecord;
using webapi::Access;
using webapi::Call;
using webapi::LaneKind;
using webapi::ParameterType;

// "user [alice]", for the logs.
std::string Shown(AccountKind kind, const std::string& name) { return std::string(WordOf(kind)) + " [" + name + "]"; }

// "1 virtual machine: [web-1]"; the id of a guest whose name is not known.
std::string ShownGuests(const std::vector<std::string>& ids) {
  constexpr std::size_t kMostShown = 16;
  std::string text = std::to_string(ids.size()) + (ids.size() == 1 ? " virtual machine: " : " virtual machines: ");
  for (std::size_t i = 0; i < ids.size() && i < kMostShown; ++i) {
    std::string name;
    if (!VexaVirtualization::GetGuestNameById(ids[i], name)) name.clear();
    text += (i == 0 ? "[" : ", [") + (name.empty() ? ids[i] : name) + "]";
  }
  return ids.size() > kMostShown ? text + ", …" : text;
}

bool IsGuestId(std::string_view text) { return !NormalizeUuid(text).empty(); }

// In lower case, as guests' records have their ids. Otherwise the call is answered.
std::optional<std::vector<std::string>> ReadGuests(const Call& call) {
  auto ids = ReadTexts(call, "guests", kRequired, IsGuestId);
  if (ids && ids->empty()) {
    Fail(call, webapi::kErrorBadParameter);
    return std::nullopt;
  }
  if (ids) std::ranges::transform(*ids, ids->begin(), NormalizeUuid);
  return ids;
}

enum class GuestChange { kGrant, kRevoke };

void ChangeGuests(const AccountServices& services, const Call& call, GuestChange change) {
  const auto guests = ReadGuests(call);
  if (!guests) return;
  const auto parameters = ReadPrincipal(call);
  if (!parameters) return;
  const auto principal = Find(services, call, *parameters);
  if (!principal) return;
  const std::string who = Shown(principal->kind, principal->name);
  if (change == GuestChange::kGrant) {
    Finish(call, cluster::GrantGuests(*services.store, *principal, *guests),
           "The " + who + " may use " + ShownGuests(*guests) + ".");
  } else {
    Finish(call, cluster::RevokeGuests(*services.store, *principal, *guests),
           "The " + who + " may no longer use " + ShownGuests(*guests) + ".");
  }
}

void SetLevel(const AccountServices& services, const Call& call) {
  const auto is_advanced = call.request->GetAndCheckBool("advanced", kRequired);
  if (is_advanced.IsInvalid()) return Fail(call, webapi::kErrorBadParameter);
  const auto parameters = ReadPrincipal(call);
  if (!parameters) return;
  const auto principal = Find(services, call, *parameters);
  if (!principal) return;
  const GrantLevel level = is_advanced.Get() ? GrantLevel::kAdvanced : GrantLevel::kUser;
  Finish(call, cluster::SetGrantLevel(*services.store, *principal, level),
         "The level of the " + Shown(principal->kind, principal->name) + " is now [" +
             std::string(cluster::WordOf(level)) + "].");
}

// Who "kind" and "name" or "id" name. The id may be that of an account that is
// gone. Otherwise the call is answered.
std::optional<GrantPrincipal> FindOwner(const AccountServices& services, const Call& call) {
  const auto parameters = ReadPrincipal(call);
  if (!parameters) return std::nullopt;
  const auto* const id = std::get_if<std::uint32_t>(&parameters->word);
  if (id == nullptr) return Find(services, call, *parameters);
  if (parameters->is_system && !IsOfThisDaemon(services, call, *parameters)) return std::nullopt;
  return GrantPrincipal{parameters->kind, *id, "", 0};
}

void Drop(const AccountServices& services, const Call& call) {
  const auto owner = FindOwner(services, call);
  if (!owner) return;
  const std::string shown = owner->name.empty() ? "#" + std::to_string(owner->id) : owner->name;
  Finish(call, cluster::DropGrants(*services.store, owner->kind, owner->id),
         "What was granted to the " + Shown(owner->kind, shown) + " has been dropped.");
}

Json::Value Describe(AccountKind kind, std::uint32_t id, const std::string& name, GrantLevel level) {
  Json::Value data(Json::objectValue);
  data["kind"] = std::string(WordOf(kind));
  data["id"] = id;
  data["name"] = name;
  data["level"] = std::string(cluster::WordOf(level));
  return data;
}

// Reads the owner's record. An owner without a record gets that of an ordinary user without guests. On failure, answers
// the call and returns nothing.
std::optional<GrantRecord> RecordOf(const AccountServices& services, const Call& call, const GrantPrincipal& owner) {
  const auto snapshot = services.store->Read();
  if (!snapshot) {
    Refuse(call, cluster::StoreFailure(snapshot.error()));
    return std::nullopt;
  }
  auto record = cluster::ReadGrants(**snapshot, owner.kind, owner.id);
  if (!record) {
    Refuse(call, record.error());
    return std::nullopt;
  }
  return *record ? std::move(**record) : GrantRecord{owner.kind, owner.id, "", GrantLevel::kUser, {}};
}

// Rights that were given to another name do not count for this one.
bool CountsFor(const GrantRecord& record, const GrantPrincipal& owner) {
  return record.name.empty() || owner.name.empty() || record.name == owner.name;
}

void GetLevel(const AccountServices& services, const Call& call) {
  const auto parameters = ReadPrincipal(call);
  if (!parameters) return;
  const auto principal = Find(services, call, *parameters);
  if (!principal) return;
  const auto record = RecordOf(services, call, *principal);
  if (!record) return;
  const GrantLevel level = CountsFor(*record, *principal) ? record->level : GrantLevel::kUser;
  call.response->SetSuccess(Describe(principal->kind, principal->id, principal->name, level));
}

void List(const AccountServices& services, const Call& call) {
  const auto owner = FindOwner(services, call);
  if (!owner) return;
  const auto record = RecordOf(services, call, *owner);
  if (!record) return;
  Json::Value data = Describe(owner->kind, owner->id, owner->name.empty() ? record->name : owner->name, record->level);
  data["given_to"] = record->name;
  data["counts"] = CountsFor(*record, *owner);
  data["guests"] = Json::Value(Json::arrayValue);
  for (const std::string& id : record->guest_ids) data["guests"].append(id);
  call.response->SetSuccess(data);
}

void ListOfGuest(const AccountServices& services, const Call& call) {
  const auto guest_id =
      call.request->GetAndCheckString("guest_id", kRequired, [](const std::string& id) { return IsGuestId(id); });
  if (guest_id.IsInvalid()) return Fail(call, webapi::kErrorBadParameter);
  const auto snapshot = services.store->Read();
  if (!snapshot) return Refuse(call, cluster::StoreFailure(snapshot.error()));
  const auto all = cluster::ReadAllGrants(**snapshot);
  if (!all) return Refuse(call, all.error());
  Json::Value data(Json::objectValue);
  Json::Value& principals = data["principals"] = Json::Value(Json::arrayValue);
  const std::string id = NormalizeUuid(guest_id.Get());
  for (const GrantRecord& record : all->records) {
    if (!std::ranges::binary_search(record.guest_ids, id)) continue;
    principals.append(Describe(record.kind, record.id, record.name, record.level));
  }
  data["damaged"] = Json::Value(Json::arrayValue);
  for (const std::string& identifier : all->damaged) data["damaged"].append(identifier);
  call.response->SetSuccess(data);
}

std::vector<webapi::Parameter> PrincipalWith(std::vector<webapi::Parameter> more) {
  std::vector<webapi::Parameter> parameters{
      Text("kind", "\"user\" or \"group\"."), NameOf("The name of the user or group; or:"), Id("the id."),
      Optional("system", ParameterType::kBoolean,
               "true: one of the machine's own; only where the daemon takes its users from PAM.")};
  parameters.insert(parameters.end(), more.begin(), more.end());
  return parameters;
}

}  // namespace

// The look-up of the machine's own users may wait for the name service: all that do it are on the long lane.
std::vector<webapi::ApiRow> GrantRows(const AccountServices& services) {
  constexpr std::string_view kApi = "VEXA.Core.Account";
  const webapi::Parameter guests{"guests", ParameterType::kArray, webapi::Necessity::kRequired,
                                 "Ids of guests (UUIDs), 1 to 1000."};
  return {
      {.api = kApi,
       .method = "level_get",
       .version = 1,
       .access = Access::kAdministrator,
       .lane = LaneKind::kLong,
       .handler = [services](const Call& call) { GetLevel(services, call); },
       .summary =
           "Whether a user or group is advanced by the record of its own: \"level\" is \"advanced\" or \"user\".",
       .parameters = PrincipalWith({}),
       .errors = AccountErrors({})},
      {.api = kApi,
       .method = "level_set",
       .version = 1,
       .access = Access::kAdministrator,
       .lane = LaneKind::kLong,
       .handler = [services](const Call& call) { SetLevel(services, call); },
       .summary = "Make a user or group an advanced one, or an ordinary one again.",
       .parameters = PrincipalWith(
           {{"advanced", ParameterType::kBoolean, webapi::Necessity::kRequired, "true: an advanced one."}}),
       .errors = AccountErrors({webapi::kErrorGrantsOfAnother})},
      {.api = kApi,
       .method = "grant_list",
       .version = 1,
       .access = Access::kAdministrator,
       .lane = LaneKind::kLong,
       .handler = [services](const Call& call) { List(services, call); },
       .summary = "What was granted to a user or group: the guests, and the level. \"given_to\" is whom the record "
                  "was given to; \"counts\" is false when that is another name.",
       .parameters = PrincipalWith({}),
       .errors = AccountErrors({})},
      {.api = kApi,
       .method = "guest_grant_list",
       .version = 1,
       .access = Access::kAdministrator,
       .lane = LaneKind::kQuick,
       .handler = [services](const Call& call) { ListOfGuest(services, call); },
       .summary = "The users and groups that a guest was granted to. \"damaged\" has the records that cannot be "
                  "understood.",
       .parameters = {Text("guest_id", "The guest's id, a UUID.")},
       .errors = {webapi::kErrorBadParameter, webapi::kErrorAccountDamaged, webapi::kErrorAccountsUnavailable}},
      {.api = kApi,
       .method = "grant",
       .version = 1,
       .access = Access::kAdministrator,
       .lane = LaneKind::kLong,
       .handler = [services](const Call& call) { ChangeGuests(services, call, GuestChange::kGrant); },
       .summary = "Allow a user or group the use of guests.",
       .parameters = PrincipalWith({guests}),
       .errors = AccountErrors({webapi::kErrorGrantsOfAnother})},
      {.api = kApi,
       .method = "revoke",
       .version = 1,
       .access = Access::kAdministrator,
       .lane = LaneKind::kLong,
       .handler = [services](const Call& call) { ChangeGuests(services, call, GuestChange::kRevoke); },
       .summary = "Take the use of guests back from a user or group.",
       .parameters = PrincipalWith({guests}),
       .errors = AccountErrors({webapi::kErrorGrantsOfAnother})},
      {.api = kApi,
       .method = "grants_drop",
       .version = 1,
       .access = Access::kAdministrator,
       .lane = LaneKind::kLong,
       .handler = [services](const Call& call) { Drop(services, call); },
       .summary = "Drop all grants and the level of a user or group, also of one that no longer exists.",
       .parameters = PrincipalWith({}),
       .errors = AccountErrors({})},
  };
}

}  // namespace vexa::services
