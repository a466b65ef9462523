// The commands about accounts and their rights: through the API, or with --local on the store of this host.
#include <algorithm>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "cli/commands.h"
#include "cli/grant_command.h"
#include "cli/local_grant_command.h"
#include "cli/local_user_command.h"
#include "cli/user_command.h"

namespace vexa::cli {
namespace {

constexpr const char* kFooter = R"(
The commands call the daemon, as all others do. They are for administrators, except setting your own password. Before
the daemon's first start, and for repairs while it is stopped, --local works on the store itself: run it as the account
that owns the store. It takes the folders from the daemon's configuration, or from --data, --store and --accounts.

Examples:
  vexa user add alice --group administrators
  sudo -u vexa vexa user add admin --group administrators --local    # before the first start of vexad
  vexa user passwd                                                   # your own
  vexa user grant alice web-1)";

// The parsed options of all account commands, which share one instance.
struct State {
  NewUserOptions user;
  std::vector<std::string> guests_or_groups;
  std::string guest;
  bool from_system = false;
  bool by_id = false;
  bool off = false;
  bool show = false;
  bool console = false;

  // For --local.
  bool local = false;
  std::string configuration;
  AccountPaths given_paths;
  std::vector<Option> configuration_options;  // each of them implies --local
  std::vector<Option> path_options;           // likewise

  static bool IsGiven(const std::vector<Option>& options) { return std::ranges::any_of(options, &Option::IsGiven); }
  bool IsLocal() const { return IsGiven(configuration_options) || IsGiven(path_options); }
  // Intentional: with --data and the like, the configuration is not read, because they may name another daemon's
  // folder.
  Result<AccountPaths> Paths() const {
    return IsGiven(configuration_options) ? PathsInConfiguration(configuration) : Result<AccountPaths>(given_paths);
  }
};
using Shared = std::shared_ptr<State>;

void AddPathOptions(const Command& group, const Shared& state) {
  const Option local = group.AddFlag("--local", state->local, "Work on the store of this host while no daemon runs");
  const Option configuration =
      group.AddOption("--config", state->configuration, "The daemon's configuration (with --local)")
          .Placeholder("FILE");
  state->configuration_options.insert(state->configuration_options.end(), {local, configuration});
  const Option data =
      group.AddOption("--data", state->given_paths.data_directory, "The daemon's data folder (implies --local)")
          .Placeholder("DIR");
  const Option store = group
                           .AddOption("--store", state->given_paths.store_folder,
                                      "The store, when it is not in the data folder (implies --local)")
                           .Placeholder("DIR");
  const Option accounts =
      group
          .AddOption(
              "--accounts", state->given_paths.account_file_path,
              "An account file of an older version, when it is not accounts.json in the data folder (implies --local)")
          .Placeholder("PATH");
  for (Option option : {data, store, accounts}) {
    option.Excludes(local).Excludes(configuration);
    state->path_options.push_back(option);
  }
}

void AddPasswordFlag(const Command& command, const Shared& state) {
  command.AddFlag(
      "--password-stdin", [state] { state->user.password = PasswordSource::kStandardInput; },
      "Read the password from the first line of standard input");
}

Command AddForAccount(const Command& group, const Shared& state, const char* name, const char* help) {
  const Command added = group.AddCommand(name, help);
  added.AddOption("NAME", state->user.name, "The account's name").Required();
  return added;
}

using Local = std::function<ExitCode(const GlobalOptions& global, const AccountPaths& paths)>;

// `remote` calls the daemon. `local` works without one; when it is empty, the command needs a daemon.
void OnRun(const Command& command, const Shared& state, RunFunction remote, Local local = {}) {
  command.OnRun([state, remote = std::move(remote), local = std::move(local)](const GlobalOptions& global) {
    if (!state->IsLocal()) return remote(global);
    if (!local) return Report(Error(ErrorCode::kInvalid, "This command needs a running daemon. Leave out --local"));
    const Result<AccountPaths> paths = state->Paths();
    return paths ? local(global, *paths) : Report(paths.error());
  });
}

void AddUserAdd(const Command& user, const Shared& state) {
  const Command add = AddForAccount(user, state, "add", "Add a user");
  add.AddOption("--group", state->user.groups, "A group to be in; may be repeated").Placeholder("G").TakesOneValue();
  add.AddOption("--uid", state->user.uid, "The uid that identifies this user on the Unix sockets of all hosts")
      .Placeholder("N");
  add.AddFlag("--advanced", state->user.advanced, "Make the user an advanced user");
  AddPasswordFlag(add, state);
  OnRun(
      add, state, [state](const auto& global) { return RunUserAdd(global, state->user); },
      [state](const auto& global, const auto& paths) { return RunLocalUserAdd(global, paths, state->user); });
}

void AddUserPasswd(const Command& user, const Shared& state) {
  const Command passwd = user.AddCommand("passwd", "Set a user's password, or change your own");
  const Option name = passwd.AddOption("NAME", state->user.name, "The user's name; without it, your password is set");
  passwd.Footer(
      "\nWithout NAME, --password-stdin reads your old password from the first line and the new one from the second.");
  AddPasswordFlag(passwd, state);
  OnRun(
      passwd, state,
      [state, name](const auto& global) {
        return RunUserPasswd(global, name.IsGiven() ? std::optional(state->user.name) : std::nullopt,
                             state->user.password);
      },
      [state, name](const auto& global, const auto& paths) {
        if (name.IsGiven()) return RunLocalUserPasswd(global, paths, state->user.name, state->user.password);
        return Report(Error(ErrorCode::kInvalid, "Name the user: with --local there is no login to take it from"));
      });
}

void AddUserCommands(const Command& user, const Shared& state) {
  AddUserAdd(user, state);
  AddUserPasswd(user, state);
  const Command group = AddForAccount(user, state, "group", "Replace the groups of a user");
  group.AddOption("GROUP", state->guests_or_groups, "The groups").Required();
  OnRun(
      group, state,
      [state](const auto& global) { return RunUserGroup(global, state->user.name, state->guests_or_groups); },
      [state](const auto& global, const auto& paths) {
        return RunLocalUserGroup(global, paths, state->user.name, state->guests_or_groups);
      });
  OnRun(
      AddForAccount(user, state, "del", "Delete a user and their grants"), state,
      [state](const auto& global) { return RunUserDel(global, state->user.name); },
      [state](const auto& global, const auto& paths) { return RunLocalUserDel(global, paths, state->user.name); });
  OnRun(user.AddCommand("list", "List the users"), state, RunUserList, RunLocalUserList);
}

void AddGroupCommands(const Command& group, const Shared& state) {
  OnRun(group.AddCommand("list", "List the groups with their members"), state, RunGroupList);
  OnRun(AddForAccount(group, state, "del", "Delete a group without members, and its grants"), state,
        [state](const auto& global) { return RunGroupDel(global, state->user.name); });
}

GrantTarget TargetOf(const State& state, AccountKind kind) {
  return {kind, state.user.name, state.from_system ? NameSource::kSystem : NameSource::kAccounts,
          state.by_id ? NameForm::kId : NameForm::kName, state.console};
}

void AddTargetFlags(const Command& command, const Shared& state) {
  command.AddFlag("--system", state->from_system,
                  "NAME is a user or group of the operating system: for daemons that take their users from PAM");
  command.AddFlag("--id", state->by_id, "NAME is a numeric id");
}

void AddLevelCommand(const Command& group, const Shared& state, AccountKind kind) {
  const Command advanced = AddForAccount(group, state, "advanced", "Make an account advanced");
  const Option off = advanced.AddFlag("--off", state->off, "Make it ordinary again");
  advanced.AddFlag("--show", state->show, "Only show its level: 'advanced' or 'user'").Excludes(off);
  AddTargetFlags(advanced, state);
  const auto level = [state] { return state->off ? cluster::GrantLevel::kUser : cluster::GrantLevel::kAdvanced; };
  OnRun(
      advanced, state,
      [state, kind, level](const auto& global) {
        const GrantTarget target = TargetOf(*state, kind);
        return state->show ? RunShowLevel(global, target) : RunSetLevel(global, target, level());
      },
      [state, kind, level](const auto& global, const auto& paths) {
        if (state->show) return Report(Error(ErrorCode::kInvalid, "--show needs a running daemon. Leave out --local"));
        return RunLocalSetLevel(global, paths, TargetOf(*state, kind), level());
      });
}

void AddGrantCommands(const Command& group, const Shared& state, AccountKind kind) {
  const Command grant = AddForAccount(group, state, "grant", "Allow the use of guests");
  const Command revoke = AddForAccount(group, state, "revoke", "Revoke the use of guests");
  const Command drop = AddForAccount(group, state, "drop-grants", "Drop all grants and the level of an account");
  const Command grants = AddForAccount(group, state, "grants", "Show the guests and the level of an account");
  for (const Command& command : {grant, revoke, drop, grants}) AddTargetFlags(command, state);
  for (const Command& command : {grant, revoke}) {
    command.AddOption("GUEST", state->guests_or_groups, "The guests' ids or names (with --local: ids)").Required();
  }
  grant.AddFlag("--console", state->console, "Also allow to open their consoles: to see their screens, and type");
  revoke.AddFlag("--console", state->console, "Only revoke their consoles; the guests may still be used");
  const auto target = [state, kind] { return TargetOf(*state, kind); };
  OnRun(
      grant, state, [state, target](const auto& global) { return RunGrant(global, target(), state->guests_or_groups); },
      [state, target](const auto& global, const auto& paths) {
        return RunLocalGrant(global, paths, target(), state->guests_or_groups);
      });
  OnRun(
      revoke, state,
      [state, target](const auto& global) { return RunRevoke(global, target(), state->guests_or_groups); },
      [state, target](const auto& global, const auto& paths) {
        return RunLocalRevoke(global, paths, target(), state->guests_or_groups);
      });
  OnRun(
      drop, state, [target](const auto& global) { return RunDropGrants(global, target()); },
      [target](const auto& global, const auto& paths) { return RunLocalDropGrants(global, paths, target()); });
  OnRun(grants, state, [target](const auto& global) { return RunListGrants(global, target()); });
  AddLevelCommand(group, state, kind);
}

}  // namespace

void AddAccountCommands(const Command& app) {
  const auto state = std::make_shared<State>();
  const Command user = app.AddGroup("user", "The users of the cluster, and what they may do");
  const Command group = app.AddGroup("group", "The groups of the cluster, and what they may do");
  AddPathOptions(user, state);
  AddPathOptions(group, state);
  AddUserCommands(user, state);
  AddGrantCommands(user, state, AccountKind::kUser);
  AddGroupCommands(group, state);
  AddGrantCommands(group, state, AccountKind::kGroup);
  // After their commands are added, because these would inherit the text.
  user.Footer(kFooter);
  group.Footer(kFooter);

  const Command guest_grants =
      app.Group("guest").AddCommand("grants", "Show the users and groups that a guest was granted to");
  guest_grants.AddOption("GUEST", state->guest, "Its id or name").Required();
  OnRun(guest_grants, state, [state](const auto& global) { return RunGuestGrants(global, state->guest); });
}

}  // namespace vexa::cli
