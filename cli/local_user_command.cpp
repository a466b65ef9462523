#include "cli/local_user_command.h"

#include "cli/account_output.h"
#include "cli/owner.h"
#include "cli/printable.h"

namespace vexa::cli {
namespace {

// `logged` and `said` are about what was done when `status` is a success.
ExitCode Finish(const GlobalOptions& global, const AccountPlaces& places, const LocalAccounts& local,
                const Status& status, const std::string& logged, const std::string& said) {
  if (!status) return Report(status.error());
  LogLocalChange(places, local.opened, logged);
  return Say(global, said);
}

Status CheckLocalUser(const NewUserOptions& options) {
  if (Status checked = CheckNewUser(options); !checked) return checked;
  return options.uid ? cluster::AccountStore::CheckSharedUid(*options.uid) : Status();
}

// The store is closed again: a password is asked for next, and a daemon may start meanwhile.
Result<base::User> FindLocalUser(const AccountPlaces& places, const std::string& name) {
  const Result<LocalAccounts> local = OpenAccounts(places, MissingStore::kRefuse);
  if (!local) return local.error();
  return local->accounts->FindUser(name);
}

// Before a password is asked for in vain. Creates nothing.
Status CheckIsFree(const AccountPlaces& places, const std::string& name) {
  const Result<base::User> taken = FindLocalUser(places, name);
  if (taken) return Error(ErrorCode::kConflict, "There is a user '" + taken->name + "' already");
  if (taken.error().code() != ErrorCode::kNotFound) return taken.error();
  return CheckOwnerOrFolder(places.store_path());
}

Json::Value AsJson(const base::User& user) {
  Json::Value value;
  value["name"] = user.name;
  value["uid"] = user.uid;
  value["gid"] = user.gid;
  value["administrator"] = user.is_administrator;
  value["groups"] = Json::Value(Json::arrayValue);
  for (const base::Group& group : user.groups) {
    Json::Value& entry = value["groups"].append(Json::Value(Json::objectValue));
    entry["name"] = group.name;
    entry["gid"] = group.gid;
  }
  return value;
}

}  // namespace

ExitCode RunLocalUserAdd(const GlobalOptions& global, const AccountPlaces& places, const NewUserOptions& options) {
  if (const Status checked = CheckLocalUser(options); !checked) return Report(checked.error());
  if (const Status free = CheckIsFree(places, options.name); !free) return Report(free.error());
  std::string password;
  const ExitCode asked = AskNewPassword(options.password, "Password of " + Printable(options.name), password);
  if (asked != ExitCode::kOk) return asked;
  const Result<LocalAccounts> local = OpenAccounts(places, MissingStore::kCreate);
  if (!local) return Report(local.error());
  using Level = cluster::AccountStore::Level;
  const Status added = local->accounts->AddUser(
      {options.name, password, options.groups, options.uid, options.advanced ? Level::kAdvanced : Level::kUser});
  return Finish(global, places, *local, added, "The user [" + options.name + "] has been added.",
                "Added user '" + Printable(options.name) + "'.");
}

ExitCode RunLocalUserPasswd(const GlobalOptions& global, const AccountPlaces& places, const std::string& name,
                            PasswordSource source) {
  const Result<base::User> user = FindLocalUser(places, name);
  if (!user) return Report(user.error());
  std::string password;
  const ExitCode asked = AskNewPassword(source, "New password of " + Printable(name), password);
  if (asked != ExitCode::kOk) return asked;
  const Result<LocalAccounts> local = OpenAccounts(places, MissingStore::kRefuse);
  if (!local) return Report(local.error());
  return Finish(global, places, *local, local->accounts->SetPassword(user->uid, password),
                "The password of the user [" + user->name + "] has been changed.",
                "Changed the password of '" + Printable(name) + "'.");
}

ExitCode RunLocalUserGroup(const GlobalOptions& global, const AccountPlaces& places, const std::string& name,
                           const std::vector<std::string>& groups) {
  const Result<LocalAccounts> local = OpenAccounts(places, MissingStore::kRefuse);
  if (!local) return Report(local.error());
  std::string shown;
  for (const std::string& group : groups) shown += (shown.empty() ? "" : ", ") + group;
  return Finish(global, places, *local, local->accounts->SetGroups(name, groups),
                "The groups of the user [" + name + "] are now [" + shown + "].",
                "Changed the groups of '" + Printable(name) + "'.");
}

ExitCode RunLocalUserDel(const GlobalOptions& global, const AccountPlaces& places, const std::string& name) {
  const Result<LocalAccounts> local = OpenAccounts(places, MissingStore::kRefuse);
  if (!local) return Report(local.error());
  return Finish(global, places, *local, local->accounts->DeleteUser(name), "The user [" + name + "] has been deleted.",
                "Deleted user '" + Printable(name) + "'.");
}

ExitCode RunLocalUserList(const GlobalOptions& global, const AccountPlaces& places) {
  const Result<LocalAccounts> local = OpenAccounts(places, MissingStore::kRefuse);
  if (!local) return Report(local.error());
  const auto users = local->accounts->ListUsers();
  if (!users) return Report(users.error());
  Json::Value all(Json::arrayValue);
  for (const base::User& user : *users) all.append(AsJson(user));
  return PrintUsers(global, all);
}

}  // namespace vexa::cli
