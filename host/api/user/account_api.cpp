#include "host/api/user/account_api.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <algorithm>
#include <map>
#include <utility>

#include "host/api/rows.h"
#include "host/api/user/password_api.h"
#include "host/api/user/session_api.h"
#include "host/cluster/account_commit.h"
#include "host/cluster/account_sentences.h"

namespace vexa::api {
namespace {

using records::AccountKind;

// The users and groups whose own grant record has the level "advanced".
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

  // A record that was created for another name does not count: the id belonged to another account then.
  bool Has(AccountKind kind, std::uint32_t id, const std::string& name) const {
    const auto found = ids_.find(Key{kind, id});
    return found != ids_.end() && (found->second.empty() || found->second == name);
  }
  bool Has(const accounts::User& user) const {
    if (Has(AccountKind::kUser, user.uid, user.name)) return true;
    return std::any_of(user.groups.begin(), user.groups.end(),
                       [this](const auto& group) { return Has(AccountKind::kGroup, group.gid, group.name); });
  }

 private:
  using Key = std::pair<AccountKind, std::uint32_t>;
  std::map<Key, std::string> ids_;  // with the name for which the record was created
};

void ListUsers(const AccountServices& services, const Call& call) {
  if (!RequireStoreAccounts(services, call)) return;
  const auto users = services.accounts->ListUsers();
  if (!users) return Refuse(call, users.error());
  const auto advanced = AdvancedPrincipals::Read(*services.store);
  if (!advanced) return Refuse(call, advanced.error());
  Json::Value data(Json::objectValue);
  Json::Value& list = data["users"] = Json::Value(Json::arrayValue);
  for (const accounts::User& user : *users) {
    Json::Value& entry = list.append(Json::Value(Json::objectValue));
    entry["name"] = user.name;
    entry["uid"] = user.uid;
    entry["gid"] = user.gid;
    entry["administrator"] = user.is_administrator;
    entry["advanced"] = advanced->Has(user);
    entry["groups"] = Json::Value(Json::arrayValue);
    for (const accounts::Group& group : user.groups) {
      Json::Value& group_entry = entry["groups"].append(Json::Value(Json::objectValue));
      group_entry["name"] = group.name;
      group_entry["gid"] = group.gid;
    }
  }
  call.response->SetSuccess(data);
}

void ListGroups(const AccountServices& services, const Call& call) {
  if (!RequireStoreAccounts(services, call)) return;
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
  const auto uid = ParseId(call.request->GetParam("uid", Json::Value()));
  if (name.IsInvalid() || password.IsInvalid() || (has_uid && !uid)) return Fail(call, user_error::kBadParameter);
  auto groups = ReadStrings(call, "groups", kOptional, IsAccountName);
  if (!groups) return;
  const auto is_advanced = ReadFlag(call, "advanced");
  if (!is_advanced || !RequireStoreAccounts(services, call)) return;
  if (const Status checked = uid ? cluster::AccountStore::CheckMachineUid(*uid) : Status(); !checked) {
    return Refuse(call, checked.error());
  }
  using Level = cluster::AccountStore::Level;
  const cluster::AccountStore::NewUser user{name.Get(), password.Get(), std::move(*groups), uid,
                                            *is_advanced ? Level::kAdvanced : Level::kUser};
  const Status added = services.accounts->AddUser(user);
  if (!added && added.error().code() == ErrorCode::kConflict) {
    return Refuse(call, added.error(), user_error::kAccountTaken);
  }
  Finish(call, added, cluster::UserAddedSentence(user));
}

// Finds the user by "name" or "id". Not set: the call has been answered. Callers change the account by its id,
// because the name may belong to another account by then.
std::optional<accounts::User> FindUser(const AccountServices& services, const Call& call) {
  const auto name_or_id = ReadNameOrId(call, IsAccountName);
  if (!name_or_id || !RequireStoreAccounts(services, call)) return std::nullopt;
  const auto* const name = std::get_if<std::string>(&*name_or_id);
  auto user = name ? services.accounts->FindUser(*name)
                   : services.accounts->FindUserByUid(std::get<std::uint32_t>(*name_or_id));
  if (user) return std::move(*user);
  Refuse(call, user.error());
  return std::nullopt;
}

// Like Finish, for changes that the account store denies only if they affect the last administrator.
void FinishUnlessLastAdministrator(const Call& call, const Status& status, const std::string& done) {
  const bool is_last = !status && status.error().code() == ErrorCode::kDenied;
  return is_last ? Refuse(call, status.error(), user_error::kLastAdministrator) : Finish(call, status, done);
}

void DeleteUser(const AccountServices& services, const Call& call) {
  const auto user = FindUser(services, call);
  if (!user) return;
  const Status deleted = services.accounts->DeleteUser(user->uid);
  // Their tokens are refused in any case, here and on other hosts.
  if (deleted) LogIfNotStored(services.sessions->ForgetUser(user->name));
  FinishUnlessLastAdministrator(call, deleted, fmt::format("The user [{}] has been deleted.", user->name));
}

void SetGroups(const AccountServices& services, const Call& call) {
  const auto groups = ReadStrings(call, "groups", kRequired, IsAccountName);
  if (!groups) return;
  const auto user = FindUser(services, call);
  if (!user) return;
  FinishUnlessLastAdministrator(
      call, services.accounts->SetGroups(user->uid, *groups),
      fmt::format("The groups of the user [{}] are now [{}].", user->name, fmt::join(*groups, ", ")));
}

void DeleteGroup(const AccountServices& services, const Call& call) {
  const auto name_or_id = ReadNameOrId(call, IsAccountName);
  if (!name_or_id || !RequireStoreAccounts(services, call)) return;
  const auto* const name = std::get_if<std::string>(&*name_or_id);
  const auto group = name ? services.accounts->FindGroup(*name)
                          : services.accounts->FindGroupByGid(std::get<std::uint32_t>(*name_or_id));
  if (!group) return Refuse(call, group.error());
  const Status deleted = services.accounts->DeleteGroup(group->gid);
  if (!deleted && deleted.error().code() == ErrorCode::kDenied) {
    return Refuse(call, deleted.error(), user_error::kGroupCannotBeDeleted);
  }
  Finish(call, deleted, fmt::format("The group [{}] has been deleted.", group->name));
}

}  // namespace

std::vector<ApiRow> AccountRows(const AccountServices& services) {
  constexpr std::string_view kApi = "VEXA.Core.Account";
  const Parameter groups{"groups", ParameterType::kArray, Necessity::kOptional,
                         "Names of groups, at most 1000; missing ones are created."};
  std::vector<ApiRow> rows{
      AdministratorRow(kApi, "user_list", LaneKind::kQuick, [services](const Call& call) { ListUsers(services, call); },
                       "The users of the cluster with their ids and groups, by name.", {},
                       {user_error::kAccountsFromPam, user_error::kAccountDamaged, user_error::kAccountsUnavailable}),
      AdministratorRow(
          kApi, "user_add", LaneKind::kLong, [services](const Call& call) { AddUser(services, call); },
          "Add a user. The user starts without grants.",
          {Text("name", "The user's name: 1 to 64 letters, digits and . _ - @ \\."),
           Text("password", "The password, 8 to 512 bytes of UTF-8."), groups,
           Optional("uid", ParameterType::kInteger,
                    "The user id of this person on all machines, known to their Unix sockets; default: "
                    "an id that has never been used. Not root's, nor that of the daemon's own account."),
           Optional("advanced", ParameterType::kBoolean, "Whether the user is advanced.")},
          AccountErrors({user_error::kAccountTaken})),
      AdministratorRow(
          kApi, "user_delete", LaneKind::kLong, [services](const Call& call) { DeleteUser(services, call); },
          "Delete a user and their grants. Their sessions end on every host. The last administrator cannot be "
          "deleted.",
          {NameParameter("The user's name, unless the id is given."),
           IdParameter("The user's id, unless the name is given.")},
          AccountErrors({user_error::kLastAdministrator})),
      AdministratorRow(
          kApi, "groups_set", LaneKind::kLong, [services](const Call& call) { SetGroups(services, call); },
          "Replace the groups of a user, except for the primary one. The last administrator cannot be removed from the "
          "administrators' group.",
          {NameParameter("The user's name, unless the id is given."),
           IdParameter("The user's id, unless the name is given."),
           {"groups", ParameterType::kArray, Necessity::kRequired, groups.description}},
          AccountErrors({user_error::kLastAdministrator})),
      AdministratorRow(kApi, "group_list", LaneKind::kQuick,
                       [services](const Call& call) { ListGroups(services, call); },
                       "The groups of the cluster with their ids and members, by name.", {},
                       {user_error::kAccountsFromPam, user_error::kAccountDamaged, user_error::kAccountsUnavailable}),
      AdministratorRow(
          kApi, "group_delete", LaneKind::kLong, [services](const Call& call) { DeleteGroup(services, call); },
          "Delete a group without members, and its grants.",
          {NameParameter("The group's name, unless the id is given."),
           IdParameter("The group's id, unless the name is given.")},
          AccountErrors({user_error::kGroupCannotBeDeleted})),
  };
  rows.push_back(PasswordRow(services));
  return rows;
}

}  // namespace vexa::api
