#include "host/api/user/account_api.h"

#include <algorithm>
#include <map>
#include <utility>

#include "host/api/rows.h"
#include "host/api/user/password_api.h"
#include "host/base/error_table.h"
#include "host/cluster/account_commit.h"

namespace vexa::services {
namespace {

using cluster::AccountKind;
using webapi::Access;
using webapi::Call;
using webapi::LaneKind;
using webapi::Necessity;
using webapi::ParameterType;

// The users and groups that are advanced by their own record.
class AdvancedPrincipals {
 public:
  static Result<AdvancedPrincipals> Read(const store::Store& store) {
    const auto snapshot = store.Read();
    if (!snapshot) return cluster::StoreFailure(snapshot.error());
    auto all = cluster::ReadAllGrants(**snapshot);
    if (!all) return all.error();
    AdvancedPrincipals advanced;
    for (const cluster::GrantRecord& record : all->records) {
      if (record.level == cluster::GrantLevel::kAdvanced)
        advanced.ids_.emplace(Key{record.kind, record.id}, record.name);
    }
    return advanced;
  }

  // A record that was given to another name does not count.
  bool Has(AccountKind kind, std::uint32_t id, const std::string& name) const {
    const auto found = ids_.find(Key{kind, id});
    return found != ids_.end() && (found->second.empty() || found->second == name);
  }
  bool Has(const base::User& user) const {
    if (Has(AccountKind::kUser, user.uid, user.name)) return true;
    return std::any_of(user.groups.begin(), user.groups.end(),
                       [this](const auto& group) { return Has(AccountKind::kGroup, group.gid, group.name); });
  }

 private:
  using Key = std::pair<AccountKind, std::uint32_t>;
  std::map<Key, std::string> ids_;  // with whom the record was given to
};

void ListUsers(const AccountServices& services, const Call& call) {
  if (!HasAccounts(services, call)) return;
  const auto users = services.accounts->ListUsers();
  if (!users) return Refuse(call, users.error());
  const auto advanced = AdvancedPrincipals::Read(*services.store);
  if (!advanced) return Refuse(call, advanced.error());
  Json::Value data(Json::objectValue);
  Json::Value& list = data["users"] = Json::Value(Json::arrayValue);
  for (const base::User& user : *users) {
    Json::Value& entry = list.append(Json::Value(Json::objectValue));
    entry["name"] = user.name;
    entry["uid"] = user.uid;
    entry["gid"] = user.gid;
    entry["administrator"] = user.is_administrator;
    entry["advanced"] = advanced->Has(user);
    entry["groups"] = Json::Value(Json::arrayValue);
    for (const base::Group& group : user.groups) {
      Json::Value& of_user = entry["groups"].append(Json::Value(Json::objectValue));
      of_user["name"] = group.name;
      of_user["gid"] = group.gid;
    }
  }
  call.response->SetSuccess(data);
}

void ListGroups(const AccountServices& services, const Call& call) {
  if (!HasAccounts(services, call)) return;
  const auto groups = services.accounts->ListGroups();
  if (!groups) return Refuse(call, groups.error());
  const auto advanced = AdvancedPrincipals::Read(*services.store);
  if (!advanced) return Refuse(call, advanced.error());
  Json::Value data(Json::objectValue);
  Json::Value& list = data["groups"] = Json::Value(Json::arrayValue);
  for (const auto& [group, members] : *groups) {
    Json::Value& entry = list.append(Json::Value(Json::objectValue));
    entry["name"] = group.name;
    entry["gid"] = group.gid;
    entry["advanced"] = advanced->Has(AccountKind::kGroup, group.gid, group.name);
    entry["members"] = Json::Value(Json::arrayValue);
    for (const std::string& member : members) entry["members"].append(member);
  }
  call.response->SetSuccess(data);
}

void AddUser(const AccountServices& services, const Call& call) {
  const auto name =
      call.request->GetAndCheckString("name", kRequired, [](const std::string& text) { return IsAccountName(text); });
  const auto password = call.request->GetAndCheckString("password", kRequired, IsPasswordLength);
  const bool has_uid = call.request->HasParam("uid");
  const auto uid = IdOf(call.request->GetParam("uid", Json::Value()));
  if (name.IsInvalid() || password.IsInvalid() || (has_uid && !uid)) return Fail(call, webapi::kErrorBadParameter);
  auto groups = ReadTexts(call, "groups", kOptional, IsAccountName);
  if (!groups) return;
  const auto is_advanced = ReadFlag(call, "advanced");
  if (!is_advanced || !HasAccounts(services, call)) return;
  if (const Status checked = uid ? cluster::AccountStore::CheckSharedUid(*uid) : Status(); !checked) {
    return Refuse(call, checked.error());
  }
  using Level = cluster::AccountStore::Level;
  const Status added = services.accounts->AddUser(
      {name.Get(), password.Get(), std::move(*groups), uid, *is_advanced ? Level::kAdvanced : Level::kUser});
  if (!added && added.error().code() == ErrorCode::kConflict) {
    return Refuse(call, added.error(), webapi::kErrorAccountTaken);
  }
  Finish(call, added, "The user [" + name.Get() + "] has been added.");
}

// The user that "name" or "id" names; otherwise the call is answered.
std::optional<base::User> FindUser(const AccountServices& services, const Call& call) {
  const auto word = ReadNameOrId(call, IsAccountName);
  if (!word || !HasAccounts(services, call)) return std::nullopt;
  const auto* const name = std::get_if<std::string>(&*word);
  auto user =
      name ? services.accounts->FindUser(*name) : services.accounts->FindUserByUid(std::get<std::uint32_t>(*word));
  if (user) return std::move(*user);
  Refuse(call, user.error());
  return std::nullopt;
}

// As Finish. A refusal of the account store is about the last administrator.
void FinishUnlessLast(const Call& call, const Status& status, const std::string& done) {
  const bool is_last = !status && status.error().code() == ErrorCode::kDenied;
  return is_last ? Refuse(call, status.error(), webapi::kErrorLastAdministrator) : Finish(call, status, done);
}

void DeleteUser(const AccountServices& services, const Call& call) {
  const auto user = FindUser(services, call);
  if (!user) return;
  FinishUnlessLast(call, services.accounts->DeleteUser(user->name), "The user [" + user->name + "] has been deleted.");
}

void SetGroups(const AccountServices& services, const Call& call) {
  const auto groups = ReadTexts(call, "groups", kRequired, IsAccountName);
  if (!groups) return;
  const auto user = FindUser(services, call);
  if (!user) return;
  std::string shown;
  for (const std::string& group : *groups) shown += (shown.empty() ? "" : ", ") + group;
  FinishUnlessLast(call, services.accounts->SetGroups(user->name, *groups),
                   "The groups of the user [" + user->name + "] are now [" + shown + "].");
}

void DeleteGroup(const AccountServices& services, const Call& call) {
  const auto word = ReadNameOrId(call, IsAccountName);
  if (!word || !HasAccounts(services, call)) return;
  const auto* const name = std::get_if<std::string>(&*word);
  const auto group =
      name ? services.accounts->FindGroup(*name) : services.accounts->FindGroupByGid(std::get<std::uint32_t>(*word));
  if (!group) return Refuse(call, group.error());
  const Status deleted = services.accounts->DeleteGroup(group->name);
  if (!deleted && deleted.error().code() == ErrorCode::kDenied) {
    return Refuse(call, deleted.error(), webapi::kErrorGroupStays);
  }
  Finish(call, deleted, "The group [" + group->name + "] has been deleted.");
}

}  // namespace

std::vector<webapi::ApiRow> AccountRows(const AccountServices& services) {
  constexpr std::string_view kApi = "VEXA.Core.Account";
  const webapi::Parameter groups{"groups", ParameterType::kArray, Necessity::kOptional,
                                 "Names of groups, at most 1000; missing ones are created."};
  std::vector<webapi::ApiRow> rows{
      {.api = kApi,
       .method = "user_list",
       .version = 1,
       .access = Access::kAdministrator,
       .lane = LaneKind::kQuick,
       .handler = [services](const Call& call) { ListUsers(services, call); },
       .summary = "The users of the cluster with their ids and groups, by name.",
       .parameters = {},
       .errors = {webapi::kErrorAccountsFromPam, webapi::kErrorAccountDamaged, webapi::kErrorAccountsUnavailable}},
      {.api = kApi,
       .method = "user_add",
       .version = 1,
       .access = Access::kAdministrator,
       .lane = LaneKind::kLong,
       .handler = [services](const Call& call) { AddUser(services, call); },
       .summary = "Add a user. The user starts without grants.",
       .parameters = {Text("name", "The user's name: 1 to 64 letters, digits and . _ - @ \\."),
                      Text("password", "The password, 8 to 512 bytes of UTF-8."), groups,
                      Optional("uid", ParameterType::kInteger,
                               "The user id of this person on all machines, known to their Unix sockets; without it "
                               "an id that was never used. Not root's, nor that of the daemon's own account."),
                      Optional("advanced", ParameterType::kBoolean, "Make the user an advanced one.")},
       .errors = AccountErrors({webapi::kErrorAccountTaken})},
      {.api = kApi,
       .method = "user_delete",
       .version = 1,
       .access = Access::kAdministrator,
       .lane = LaneKind::kQuick,
       .handler = [services](const Call& call) { DeleteUser(services, call); },
       .summary =
           "Delete a user and what was granted to them. Their sessions end on every host. The last administrator "
           "cannot be deleted.",
       .parameters = {NameOf("The user's name; or:"), Id("the user's id.")},
       .errors = AccountErrors({webapi::kErrorLastAdministrator})},
      {.api = kApi,
       .method = "groups_set",
       .version = 1,
       .access = Access::kAdministrator,
       .lane = LaneKind::kQuick,
       .handler = [services](const Call& call) { SetGroups(services, call); },
       .summary = "Replace the groups of a user, except for the primary one. The last administrator stays one.",
       .parameters = {NameOf("The user's name; or:"),
                      Id("the user's id."),
                      {"groups", ParameterType::kArray, Necessity::kRequired, groups.description}},
       .errors = AccountErrors({webapi::kErrorLastAdministrator})},
      {.api = kApi,
       .method = "group_list",
       .version = 1,
       .access = Access::kAdministrator,
       .lane = LaneKind::kQuick,
       .handler = [services](const Call& call) { ListGroups(services, call); },
       .summary = "The groups of the cluster with their ids and members, by name.",
       .parameters = {},
       .errors = {webapi::kErrorAccountsFromPam, webapi::kErrorAccountDamaged, webapi::kErrorAccountsUnavailable}},
      {.api = kApi,
       .method = "group_delete",
       .version = 1,
       .access = Access::kAdministrator,
       .lane = LaneKind::kQuick,
       .handler = [services](const Call& call) { DeleteGroup(services, call); },
       .summary = "Delete a group that nobody is in, and what was granted to it.",
       .parameters = {NameOf("The group's name; or:"), Id("the group's id.")},
       .errors = AccountErrors({webapi::kErrorGroupStays})},
  };
  rows.push_back(PasswordRow(services));
  return rows;
}

}  // namespace vexa::services
