#include "host/api/user/grant_api.h"

#include <fmt/format.h>

#include <algorithm>
#include <utility>

#include "host/api/rows.h"
#include "host/base/uuid.h"
#include "host/cluster/account_commit.h"
#include "webapi/utils/utils.h"

namespace vexa::api {
namespace {

using cluster::GrantLevel;
using cluster::GrantPrincipal;
using cluster::GrantRecord;
using records::AccountKind;

// "user [alice]", for the logs.
std::string PrincipalForLog(AccountKind kind, std::string_view name) {
  return fmt::format("{} [{}]", AccountKindName(kind), name);
}

// "1 virtual machine: [web-1]"; a guest whose name is unknown is listed by its id.
std::string GuestsForLog(const std::vector<std::string>& ids) {
  constexpr std::size_t kMaxListed = 16;
  std::string text = fmt::format("{} virtual {}: ", ids.size(), ids.size() == 1 ? "machine" : "machines");
  for (std::size_t i = 0; i < ids.size() && i < kMaxListed; ++i) {
    std::string name;
    if (!VexaVirtualization::GetGuestNameById(ids[i], name)) name.clear();
    text += fmt::format("{}[{}]", i == 0 ? "" : ", ", name.empty() ? ids[i] : name);
  }
  return ids.size() > kMaxListed ? text + ", …" : text;
}

bool IsGuestId(std::string_view text) { return !NormalizeUuid(text).empty(); }

// The ids in lower case, as in guests' records. Not set: the call has been answered.
std::optional<std::vector<std::string>> ReadGuests(const Call& call) {
  auto ids = ReadStrings(call, "guests", kRequired, IsGuestId);
  if (ids && ids->empty()) {
    Fail(call, user_error::kBadParameter);
    return std::nullopt;
  }
  if (ids) std::ranges::transform(*ids, ids->begin(), NormalizeUuid);
  return ids;
}

enum class GuestChange { kGrant, kRevoke };

void ChangeConsoles(const AccountServices& services, const Call& call, GuestChange change,
                    const GrantPrincipal& principal, const std::vector<std::string>& guests) {
  const std::string principal_text = PrincipalForLog(principal.kind, principal.name);
  if (change == GuestChange::kGrant) {
    Finish(call, cluster::GrantConsoles(*services.store, principal, guests),
           fmt::format("The {} may use {}, with the console.", principal_text, GuestsForLog(guests)));
  } else {
    Finish(call, cluster::RevokeConsoles(*services.store, principal, guests),
           fmt::format("The {} may no longer open the console of {}.", principal_text, GuestsForLog(guests)));
  }
}

void ChangeGuests(const AccountServices& services, const Call& call, GuestChange change) {
  const auto guests = ReadGuests(call);
  if (!guests) return;
  const auto with_console = ReadFlag(call, "console");
  if (!with_console) return;
  const auto parameters = ReadPrincipal(call);
  if (!parameters) return;
  const auto principal = FindPrincipal(services, call, *parameters);
  if (!principal) return;
  const std::string principal_text = PrincipalForLog(principal->kind, principal->name);
  if (*with_console) {
    ChangeConsoles(services, call, change, *principal, *guests);
  } else if (change == GuestChange::kGrant) {
    Finish(call, cluster::GrantGuests(*services.store, *principal, *guests),
           fmt::format("The {} may use {}.", principal_text, GuestsForLog(*guests)));
  } else {
    Finish(call, cluster::RevokeGuests(*services.store, *principal, *guests),
           fmt::format("The {} may no longer use {}.", principal_text, GuestsForLog(*guests)));
  }
}

void SetLevel(const AccountServices& services, const Call& call) {
  const auto is_advanced = call.request->GetAndCheckBool("advanced", kRequired);
  if (is_advanced.IsInvalid()) return Fail(call, user_error::kBadParameter);
  const auto parameters = ReadPrincipal(call);
  if (!parameters) return;
  const auto principal = FindPrincipal(services, call, *parameters);
  if (!principal) return;
  const GrantLevel level = is_advanced.Get() ? GrantLevel::kAdvanced : GrantLevel::kUser;
  Finish(call, cluster::SetGrantLevel(*services.store, *principal, level),
         fmt::format("The level of the {} is now [{}].", PrincipalForLog(principal->kind, principal->name),
                     cluster::GrantLevelName(level)));
}

// Finds the user or group by "kind" and "name" or "id". An id may belong to an account that no longer exists.
// Not set: the call has been answered.
std::optional<GrantPrincipal> FindPrincipalOrId(const AccountServices& services, const Call& call) {
  const auto parameters = ReadPrincipal(call);
  if (!parameters) return std::nullopt;
  const auto* const id = std::get_if<std::uint32_t>(&parameters->name_or_id);
  if (id == nullptr) return FindPrincipal(services, call, *parameters);
  if (parameters->is_system && !RequireSupportedPrincipal(services, call, *parameters)) return std::nullopt;
  return GrantPrincipal{parameters->kind, *id, "", 0};
}

void Drop(const AccountServices& services, const Call& call) {
  const auto owner = FindPrincipalOrId(services, call);
  if (!owner) return;
  const std::string name = owner->name.empty() ? "#" + std::to_string(owner->id) : owner->name;
  Finish(call, cluster::DropGrants(*services.store, owner->kind, owner->id),
         fmt::format("What was granted to the {} has been dropped.", PrincipalForLog(owner->kind, name)));
}

Json::Value Describe(AccountKind kind, std::uint32_t id, const std::string& name, GrantLevel level) {
  Json::Value data(Json::objectValue);
  data["kind"] = std::string(AccountKindName(kind));
  data["id"] = id;
  data["name"] = name;
  data["level"] = std::string(cluster::GrantLevelName(level));
  return data;
}

// Reads the owner's record. An owner without a record gets that of an ordinary user without guests. Not set when it
// cannot be read; the call has then been answered.
std::optional<GrantRecord> ReadRecordOrDefault(const AccountServices& services, const Call& call,
                                               const GrantPrincipal& owner) {
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
  return *record ? std::move(**record) : GrantRecord{owner.kind, owner.id, "", GrantLevel::kUser, {}, {}};
}

// A record that was created for another name does not count: the id belonged to another account then.
bool AppliesTo(const GrantRecord& record, const GrantPrincipal& owner) {
  return record.name.empty() || owner.name.empty() || record.name == owner.name;
}

void GetLevel(const AccountServices& services, const Call& call) {
  const auto parameters = ReadPrincipal(call);
  if (!parameters) return;
  const auto principal = FindPrincipal(services, call, *parameters);
  if (!principal) return;
  const auto record = ReadRecordOrDefault(services, call, *principal);
  if (!record) return;
  const GrantLevel level = AppliesTo(*record, *principal) ? record->level : GrantLevel::kUser;
  call.response->SetSuccess(Describe(principal->kind, principal->id, principal->name, level));
}

void List(const AccountServices& services, const Call& call) {
  const auto owner = FindPrincipalOrId(services, call);
  if (!owner) return;
  const auto record = ReadRecordOrDefault(services, call, *owner);
  if (!record) return;
  Json::Value data = Describe(owner->kind, owner->id, owner->name.empty() ? record->name : owner->name, record->level);
  data["given_to"] = record->name;
  data["counts"] = AppliesTo(*record, *owner);
  data["guests"] = Json::Value(Json::arrayValue);
  for (const std::string& id : record->guest_ids) data["guests"].append(id);
  data["consoles"] = Json::Value(Json::arrayValue);
  for (const std::string& id : record->console_ids) data["consoles"].append(id);
  call.response->SetSuccess(data);
}

void ListOfGuest(const AccountServices& services, const Call& call) {
  const auto guest_id =
      call.request->GetAndCheckString("guest_id", kRequired, [](const std::string& id) { return IsGuestId(id); });
  if (guest_id.IsInvalid()) return Fail(call, user_error::kBadParameter);
  const auto snapshot = services.store->Read();
  if (!snapshot) return Refuse(call, cluster::StoreFailure(snapshot.error()));
  const auto all = cluster::ReadAllGrants(**snapshot);
  if (!all) return Refuse(call, all.error());
  Json::Value data(Json::objectValue);
  Json::Value& principals = data["principals"] = Json::Value(Json::arrayValue);
  const std::string id = NormalizeUuid(guest_id.Get());
  for (const GrantRecord& record : all->records) {
    if (!std::ranges::binary_search(record.guest_ids, id)) continue;
    Json::Value& principal = principals.append(Describe(record.kind, record.id, record.name, record.level));
    principal["console"] = std::ranges::binary_search(record.console_ids, id);
  }
  data["damaged"] = Json::Value(Json::arrayValue);
  for (const std::string& identifier : all->damaged) data["damaged"].append(identifier);
  call.response->SetSuccess(data);
}

std::vector<Parameter> WithPrincipalParameters(std::vector<Parameter> more) {
  std::vector<Parameter> parameters{
      Text("kind", "\"user\" or \"group\"."), NameParameter("The name of the user or group, unless the id is given."),
      IdParameter("Its id, unless the name is given."),
      Optional(
          "system", ParameterType::kBoolean,
          "Whether it is a user or group of the operating system; only where the daemon takes its users from PAM.")};
  parameters.insert(parameters.end(), more.begin(), more.end());
  return parameters;
}

}  // namespace

// Looking up users of the operating system may wait for the name service, so the methods that do it are on the long
// lane.
std::vector<ApiRow> GrantRows(const AccountServices& services) {
  constexpr std::string_view kApi = "VEXA.Core.Account";
  const Parameter guests{"guests", ParameterType::kArray, Necessity::kRequired, "Ids of guests (UUIDs), 1 to 1000."};
  return {
      AdministratorRow(
          kApi, "level_get", LaneKind::kLong, [services](const Call& call) { GetLevel(services, call); },
          "Whether a user or group is advanced by its own record: \"level\" is \"advanced\" or \"user\".",
          WithPrincipalParameters({}), AccountErrors({})),
      AdministratorRow(
          kApi, "level_set", LaneKind::kLong, [services](const Call& call) { SetLevel(services, call); },
          "Set whether a user or group is advanced.",
          WithPrincipalParameters(
              {{"advanced", ParameterType::kBoolean, Necessity::kRequired, "Whether it is advanced."}}),
          AccountErrors({user_error::kGrantsOfOtherAccount})),
      AdministratorRow(
          kApi, "grant_list", LaneKind::kLong, [services](const Call& call) { List(services, call); },
          "The grants of a user or group: its guests, those of them with the console, and its level. \"given_to\" is "
          "the name that the record "
          "was given to; \"counts\" is false when that is not its name.",
          WithPrincipalParameters({}), AccountErrors({})),
      AdministratorRow(kApi, "guest_grant_list", LaneKind::kQuick,
                       [services](const Call& call) { ListOfGuest(services, call); },
                       "The users and groups that a guest was granted to, and whether with the console. \"damaged\" "
                       "lists the records that cannot be read.",
                       {Text("guest_id", "The guest's id, a UUID.")},
                       {user_error::kBadParameter, user_error::kAccountDamaged, user_error::kAccountsUnavailable}),
      AdministratorRow(
          kApi, "grant", LaneKind::kLong,
          [services](const Call& call) { ChangeGuests(services, call, GuestChange::kGrant); },
          "Allow a user or group to use guests.",
          WithPrincipalParameters({guests, OptionalFlag("console",
                                                        "Whether with their consoles; without it, consoles "
                                                        "stay as they are.")}),
          AccountErrors({user_error::kGrantsOfOtherAccount})),
      AdministratorRow(
          kApi, "revoke", LaneKind::kLong,
          [services](const Call& call) { ChangeGuests(services, call, GuestChange::kRevoke); },
          "Revoke a user's or group's use of guests.",
          WithPrincipalParameters(
              {guests, OptionalFlag("console", "Whether only their consoles are revoked, and the guests stay.")}),
          AccountErrors({user_error::kGrantsOfOtherAccount})),
      AdministratorRow(
          kApi, "grants_drop", LaneKind::kLong, [services](const Call& call) { Drop(services, call); },
          "Remove all grants and the level of a user or group, even of one that no longer exists.",
          WithPrincipalParameters({}), AccountErrors({})),
  };
}

}  // namespace vexa::api
