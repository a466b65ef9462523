#include "cli/local_user_command.h"

#include "cli/account_output.h"
#include "cli/printable.h"

namespace vexa::cli {
namespace {

using Accounts = std::unique_ptr<cluster::AccountStore>;

// `logged` and `said` are about what was done when `status` is a success.
ExitCode Finish(const GlobalOptions& global, const AccountPlaces& places, const Status& status,
                const std::string& logged, const std::string& said) {
  if (!status) return Report(status.error());
  LogLocalChange(places, logged);
  return Say(global, said);
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
  if (const Status checked = options.uid ? cluster::AccountStore::CheckSharedUid(*options.uid) : Status(); !checked) {
    return Report(checked.error());
  }
  const Result<Accounts> accounts = OpenAccounts(places, MissingStore::kCreate);
  if (!accounts) return Report(accounts.error());
  if (const auto taken = (*accounts)->FindUser(options.name)) {
    // Before a password is asked for in vain.
    return Report(Error(ErrorCode::kConflict, "There is a user '" + taken->name + "' already"));
  }
  const Result<std::string> password = GetNewPassword(options.password, "Password of " + Printable(options.name));
  if (!password) {
    Report(password.error());
    return ExitCode::kUsage;
  }
  using Level = cluster::AccountStore::Level;
  const Status added = (*accounts)->AddUser(
      {options.name, *password, options.groups, options.uid, options.advanced ? Level::kAdvanced : Level::kUser});
  return Finish(global, places, added, "The user [" + options.name + "] has been added.",
                "Added user '" + Printable(options.name) + "'.");
}

ExitCode RunLocalUserPasswd(const GlobalOptions& global, const AccountPlaces& places, const std::string& name,
                            PasswordSource source) {
  const Result<Accounts> accounts = OpenAccounts(places, MissingStore::kRefuse);
  if (!accounts) return Report(accounts.error());
  const auto user = (*accounts)->FindUser(name);
  if (!user) return Report(user.error());
  const Result<std::string> password = GetNewPassword(source, "New password of " + Printable(name));
  if (!password) {
    Report(password.error());
    return ExitCode::kUsage;
  }
  return Finish(global, places, (*accounts)->SetPassword(user->uid, *password),
                "The password of the user [" + name + "] has been changed.",
                "Changed the password of '" + Printable(name) + "'.");
}

ExitCode RunLocalUserGroup(const GlobalOptions& global, const AccountPlaces& places, const std::string& name,
                           const std::vector<std::string>& groups) {
  const Result<Accounts> accounts = OpenAccounts(places, MissingStore::kRefuse);
  if (!accounts) return Report(accounts.error());
  std::string shown;
  for (const std::string& group : groups) shown += (shown.empty() ? "" : ", ") + group;
  return Finish(global, places, (*accounts)->SetGroups(name, groups),
                "The groups of the user [" + name + "] are now [" + shown + "].",
                "Changed the groups of '" + Printable(name) + "'.");
}

ExitCode RunLocalUserDel(const GlobalOptions& global, const AccountPlaces& places, const std::string& name) {
  const Result<Accounts> accounts = OpenAccounts(places, MissingStore::kRefuse);
  if (!accounts) return Report(accounts.error());
  return Finish(global, places, (*accounts)->DeleteUser(name), "The user [" + name + "] has been deleted.",
                "Deleted user '" + Printable(name) + "'.");
}

ExitCode RunLocalUserList(const GlobalOptions& global, const AccountPlaces& places) {
  const Result<Accounts> accounts = OpenAccounts(places, MissingStore::kRefuse);
  if (!accounts) return Report(accounts.error());
  const auto users = (*accounts)->ListUsers();
  if (!users) return Report(users.error());
  Json::Value all(Json::arrayValue);
  for (const base::User& user : *users) all.append(AsJson(user));
  return PrintUsers(global, all);
}

}  // namespace vexa::cli
