#include "cli/user_command.h"

#include <iostream>

#include "cli/grant_command.h"
#include "cli/owner.h"
#include "cli/printable.h"
#include "host/base/account_file.h"

namespace vexa::cli {
namespace {

using Accounts = std::unique_ptr<base::AccountFile>;

Result<Accounts> OpenExisting(const AccountPlaces& places) {
  const Status owner = CheckOwner(places.accounts_path());
  if (owner.ok()) return base::AccountFile::Open(places.accounts_path());
  if (owner.error().code() != ErrorCode::kNotFound) return owner.error();
  return Error(ErrorCode::kNotFound,
               "There is no account file '" + places.accounts_path() + "'; 'vexa user add' creates one");
}

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

// The new user's level. Takes the user back when that cannot be set: half of what was asked for is nothing.
Status MakeAdvanced(base::AccountFile& accounts, const AccountPlaces& places, const std::string& name) {
  const auto user = accounts.FindUser(name);
  const Status level = user ? SetAuthLevel(places.data_directory, AccountKind::kUser, user->uid, AuthLevel::kAdvanced)
                            : Status(user.error());
  if (level.ok()) return level;
  const Status undone = accounts.DeleteUser(name);
  return undone ? level
                : Status(Error(ErrorCode::kInternal, "The user was added, but not as an advanced one",
                               level.error().ToString()));
}

}  // namespace

ExitCode RunUserAdd(const GlobalOptions& global, const AccountPlaces& places, const NewUserOptions& options) {
  if (const Status owner = CheckOwnerOrFolder(places.accounts_path()); !owner) return Report(owner.error());
  const Result<Accounts> accounts = base::AccountFile::Open(places.accounts_path());
  if (!accounts) return Report(accounts.error());
  if ((*accounts)->FindUser(options.name).ok()) {
    // Before a password is asked for in vain.
    return Report(Error(ErrorCode::kConflict, "There is a user '" + options.name + "' already"));
  }
  const Result<std::string> password = GetNewPassword(options.password, "Password of " + Printable(options.name));
  if (!password) {
    Report(password.error());
    return ExitCode::kUsage;
  }
  const Status added = (*accounts)->AddUser({options.name, *password, options.groups, options.uid});
  if (!added) return Report(added.error());
  const Status status = options.advanced ? MakeAdvanced(**accounts, places, options.name) : Status();
  return Finish(global, status, "Added user '" + Printable(options.name) + "'.");
}

ExitCode RunUserPasswd(const GlobalOptions& global, const AccountPlaces& places, const std::string& name,
                       PasswordSource source) {
  const Result<Accounts> accounts = OpenExisting(places);
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
  const Result<Accounts> accounts = OpenExisting(places);
  if (!accounts) return Report(accounts.error());
  return Finish(global, (*accounts)->SetGroups(name, groups), "Changed the groups of '" + Printable(name) + "'.");
}

ExitCode RunUserDel(const GlobalOptions& global, const AccountPlaces& places, const std::string& name) {
  const Result<Accounts> accounts = OpenExisting(places);
  if (!accounts) return Report(accounts.error());
  const auto user = (*accounts)->FindUser(name);
  if (!user) return Report(user.error());
  if (const Status dropped = DropGrants(places.data_directory, AccountKind::kUser, user->uid); !dropped) {
    return Report(dropped.error());
  }
  return Finish(global, (*accounts)->DeleteUser(name), "Deleted user '" + Printable(name) + "'.");
}

ExitCode RunUserList(const GlobalOptions& global, const AccountPlaces& places) {
  const Result<Accounts> accounts = OpenExisting(places);
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
