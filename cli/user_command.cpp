#include "cli/user_command.h"

#include <iostream>

#include "cli/printable.h"

namespace vexa::cli {
namespace {

using Accounts = std::unique_ptr<cluster::AccountStore>;

ExitCode Finish(const GlobalOptions& global, const Status& status, const std::string& done) {
  if (!status) return Report(status.error());
  if (!global.quiet) std::cout << done << '\n';
  return ExitCode::kOk;
}

std::string GroupNames(const base::User& user) {
  std::string result;
  for (const base::Group& group : user.groups) result += (result.empty() ? "" : ", ") + group.name;
  return result;
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

ExitCode RunUserAdd(const GlobalOptions& global, const AccountPlaces& places, const NewUserOptions& options) {
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
  return Finish(global, added, "Added user '" + Printable(options.name) + "'.");
}

ExitCode RunUserPasswd(const GlobalOptions& global, const AccountPlaces& places, const std::string& name,
                       PasswordSource source) {
  const Result<Accounts> accounts = OpenAccounts(places, MissingStore::kRefuse);
  if (!accounts) return Report(accounts.error());
  if (const auto user = (*accounts)->FindUser(name); !user) return Report(user.error());
  const Result<std::string> password = GetNewPassword(source, "New password of " + Printable(name));
  if (!password) {
    Report(password.error());
    return ExitCode::kUsage;
  }
  return Finish(global, (*accounts)->SetPassword(name, *password),
                "Changed the password of '" + Printable(name) + "'.");
}

ExitCode RunUserGroup(const GlobalOptions& global, const AccountPlaces& places, const std::string& name,
                      const std::vector<std::string>& groups) {
  const Result<Accounts> accounts = OpenAccounts(places, MissingStore::kRefuse);
  if (!accounts) return Report(accounts.error());
  return Finish(global, (*accounts)->SetGroups(name, groups), "Changed the groups of '" + Printable(name) + "'.");
}

ExitCode RunUserDel(const GlobalOptions& global, const AccountPlaces& places, const std::string& name) {
  const Result<Accounts> accounts = OpenAccounts(places, MissingStore::kRefuse);
  if (!accounts) return Report(accounts.error());
  return Finish(global, (*accounts)->DeleteUser(name), "Deleted user '" + Printable(name) + "'.");
}

ExitCode RunUserList(const GlobalOptions& global, const AccountPlaces& places) {
  const Result<Accounts> accounts = OpenAccounts(places, MissingStore::kRefuse);
  if (!accounts) return Report(accounts.error());
  const auto users = (*accounts)->ListUsers();
  if (!users) return Report(users.error());
  if (global.json) {
    Json::Value all(Json::arrayValue);
    for (const base::User& user : *users) all.append(AsJson(user));
    return PrintJson(all);
  }
  Table table{{"USER", "ID", "ADMINISTRATOR", "GROUPS"}, {}};
  for (const base::User& user : *users) {
    table.rows.push_back({user.name, std::to_string(user.uid), user.is_administrator ? "yes" : "no", GroupNames(user)});
  }
  PrintTable(std::cout, table);
  return ExitCode::kOk;
}

}  // namespace vexa::cli
