#include "cli/local_user_command.h"

#include <fmt/format.h>

#include "cli/account_output.h"
#include "cli/owner.h"
#include "cli/printable.h"
#include "host/cluster/account_sentences.h"

namespace vexa::cli {
namespace {

// Reports `status`, and on success the change: `log_text` goes to the logs, `confirmation` to the user.
ExitCode ReportChange(const GlobalOptions& global, const AccountPaths& paths, const LocalAccounts& local,
                      const Status& status, const std::string& log_text, const std::string& confirmation) {
  if (!status) return Report(status.error());
  LogLocalChange(paths, local.opened, log_text);
  return PrintConfirmation(global, confirmation);
}

Status CheckLocalUser(const NewUserOptions& options) {
  if (Status checked = CheckNewUser(options); !checked) return checked;
  return options.uid ? cluster::AccountStore::CheckMachineUid(*options.uid) : Status();
}

// Closes the store again, because a password prompt follows and a daemon may start meanwhile.
Result<accounts::User> FindLocalUser(const AccountPaths& paths, const std::string& name) {
  const Result<LocalAccounts> local = OpenAccounts(paths, MissingStore::kRefuse);
  if (!local) return local.error();
  return local->accounts->FindUser(name);
}

// Fails when the name is taken or the account could not be stored, before the user types a password. Creates nothing.
Status CheckNameIsFree(const AccountPaths& paths, const std::string& name) {
  const Result<accounts::User> taken = FindLocalUser(paths, name);
  if (taken) return UserExists(taken->name);
  if (taken.error().code() != ErrorCode::kNotFound) return taken.error();
  return CheckOwnerOrFolder(paths.store_path());
}

Json::Value AsJson(const accounts::User& user) {
  Json::Value value;
  value["name"] = user.name;
  value["uid"] = user.uid;
  value["gid"] = user.gid;
  value["administrator"] = user.is_administrator;
  value["groups"] = Json::Value(Json::arrayValue);
  for (const accounts::Group& group : user.groups) {
    Json::Value& entry = value["groups"].append(Json::Value(Json::objectValue));
    entry["name"] = group.name;
    entry["gid"] = group.gid;
  }
  return value;
}

}  // namespace

ExitCode RunLocalUserAdd(const GlobalOptions& global, const AccountPaths& paths, const NewUserOptions& options) {
  if (const Status checked = CheckLocalUser(options); !checked) return Report(checked.error());
  if (const Status made = MakeServiceFolder(paths.data_directory); !made) return Report(made.error());
  if (const Status free = CheckNameIsFree(paths, options.name); !free) return Report(free.error());
  std::string password;
  const ExitCode asked =
      AskNewPassword(options.password, fmt::format("Password of {}", Printable(options.name)), password);
  if (asked != ExitCode::kOk) return asked;
  const Result<LocalAccounts> local = OpenAccounts(paths, MissingStore::kCreate);
  if (!local) return Report(local.error());
  using Level = cluster::AccountStore::Level;
  const cluster::AccountStore::NewUser user{options.name, password, options.groups, options.uid,
                                            options.advanced ? Level::kAdvanced : Level::kUser};
  return ReportChange(global, paths, *local, local->accounts->AddUser(user), cluster::UserAddedSentence(user),
                      UserAdded(options.name));
}

ExitCode RunLocalUserPasswd(const GlobalOptions& global, const AccountPaths& paths, const std::string& name,
                            PasswordSource source) {
  const Result<accounts::User> user = FindLocalUser(paths, name);
  if (!user) return Report(user.error());
  std::string password;
  const ExitCode asked = AskNewPassword(source, fmt::format("New password of {}", Printable(name)), password);
  if (asked != ExitCode::kOk) return asked;
  const Result<LocalAccounts> local = OpenAccounts(paths, MissingStore::kRefuse);
  if (!local) return Report(local.error());
  const auto stamp = local->accounts->SetPassword(user->uid, password);
  return ReportChange(global, paths, *local, stamp ? Status() : stamp.error(),
                      fmt::format("The password of the user [{}] has been changed.", user->name),
                      PasswordChanged(name));
}

ExitCode RunLocalUserGroup(const GlobalOptions& global, const AccountPaths& paths, const std::string& name,
                           const std::vector<std::string>& groups) {
  const Result<LocalAccounts> local = OpenAccounts(paths, MissingStore::kRefuse);
  if (!local) return Report(local.error());
  return ReportChange(global, paths, *local, local->accounts->SetGroups(name, groups),
                      fmt::format("The groups of the user [{}] are now [{}].", name, fmt::join(groups, ", ")),
                      GroupsChanged(name));
}

ExitCode RunLocalUserDel(const GlobalOptions& global, const AccountPaths& paths, const std::string& name) {
  const Result<LocalAccounts> local = OpenAccounts(paths, MissingStore::kRefuse);
  if (!local) return Report(local.error());
  return ReportChange(global, paths, *local, local->accounts->DeleteUser(name),
                      fmt::format("The user [{}] has been deleted.", name), UserDeleted(name));
}

ExitCode RunLocalUserList(const GlobalOptions& global, const AccountPaths& paths) {
  const Result<LocalAccounts> local = OpenAccounts(paths, MissingStore::kRefuse);
  if (!local) return Report(local.error());
  const auto users = local->accounts->ListUsers();
  if (!users) return Report(users.error());
  Json::Value all(Json::arrayValue);
  for (const accounts::User& user : *users) all.append(AsJson(user));
  return PrintUsers(global, all);
}

}  // namespace vexa::cli
