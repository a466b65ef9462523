// The commands that work on the store of a daemon: accounts and what they may do.
#include <CLI/CLI.hpp>
#include <memory>

#include "cli/commands.h"
#include "cli/grant_command.h"
#include "cli/user_command.h"

namespace vexa::cli {
namespace {

// What the account commands share; one is alive for all of them.
struct State {
  AccountPlaces places;
  NewUserOptions user;
  std::vector<std::string> words;  // guests or groups
  bool from_system = false;
  bool off = false;
};
using Shared = std::shared_ptr<State>;

void AddPlaces(CLI::App& command, const Shared& state) {
  command.add_option("--data", state->places.data_directory, "The daemon's data folder")
      ->type_name("DIR")
      ->capture_default_str();
  command.add_option("--store", state->places.other_store, "The daemon's store, when it is not in the data folder")
      ->type_name("DIR");
  command
      .add_option("--accounts", state->places.other_accounts_path,
                  "An account file of an older version to take over, when it is not accounts.json in the data folder")
      ->type_name("PATH");
}

void AddPasswordFlag(CLI::App& command, const Shared& state) {
  command.add_flag_callback(
      "--password-stdin", [state] { state->user.password = PasswordSource::kStandardInput; },
      "Read the password from the first line of standard input");
}

CLI::App* AddNamed(CLI::App& parent, const Shared& state, const char* command, const char* help) {
  CLI::App* added = parent.add_subcommand(command, help);
  added->add_option("NAME", state->user.name, "The account's name")->required();
  return added;
}

void OnRun(CLI::App* command, Invocation& invocation, std::function<ExitCode()> run) {
  command->callback([&invocation, run = std::move(run)] { invocation.run = run; });
}

void AddUserCommands(CLI::App& user, Invocation& invocation, const Shared& state) {
  const GlobalOptions& global = invocation.global;
  CLI::App* add = AddNamed(user, state, "add", "Add a user");
  add->add_option("--group", state->user.groups, "A group to be in; may be repeated")
      ->type_name("G")
      ->allow_extra_args(false);
  add->add_option("--uid", state->user.uid, "The user id of this person on all machines, known to their Unix sockets")
      ->type_name("N");
  add->add_flag("--advanced", state->user.advanced, "Make the user an advanced one");
  AddPasswordFlag(*add, state);
  OnRun(add, invocation, [&global, state] { return RunUserAdd(global, state->places, state->user); });

  CLI::App* passwd = AddNamed(user, state, "passwd", "Set a user's password");
  AddPasswordFlag(*passwd, state);
  OnRun(passwd, invocation,
        [&global, state] { return RunUserPasswd(global, state->places, state->user.name, state->user.password); });

  CLI::App* group = AddNamed(user, state, "group", "Replace the groups of a user");
  group->add_option("GROUP", state->words, "The groups")->required();
  OnRun(group, invocation,
        [&global, state] { return RunUserGroup(global, state->places, state->user.name, state->words); });

  CLI::App* del = AddNamed(user, state, "del", "Delete a user and what was granted to them");
  OnRun(del, invocation, [&global, state] { return RunUserDel(global, state->places, state->user.name); });

  CLI::App* list = user.add_subcommand("list", "List the users");
  OnRun(list, invocation, [&global, state] { return RunUserList(global, state->places); });
}

GrantTarget TargetOf(const State& state, AccountKind kind) {
  return {kind, state.user.name, state.from_system ? NameSource::kSystem : NameSource::kAccounts, state.places};
}

void AddGrantCommands(CLI::App& parent, Invocation& invocation, const Shared& state, AccountKind kind) {
  const GlobalOptions& global = invocation.global;
  CLI::App* grant = AddNamed(parent, state, "grant", "Allow the use of guests");
  CLI::App* revoke = AddNamed(parent, state, "revoke", "Take the use of guests back");
  CLI::App* advanced = AddNamed(parent, state, "advanced", "Make an account an advanced one");
  CLI::App* drop = AddNamed(parent, state, "drop-grants", "Drop all grants and the level of an account");
  for (CLI::App* command : {grant, revoke, advanced, drop}) {
    command->add_flag("--system", state->from_system,
                      "NAME is one of the machine's own: for daemons that take their users from PAM");
  }
  for (CLI::App* command : {grant, revoke}) {
    command->add_option("GUEST_ID", state->words, "The guests' ids")->required();
  }
  advanced->add_flag("--off", state->off, "Make it an ordinary one again");
  OnRun(grant, invocation, [&global, state, kind] { return RunGrant(global, TargetOf(*state, kind), state->words); });
  OnRun(revoke, invocation, [&global, state, kind] { return RunRevoke(global, TargetOf(*state, kind), state->words); });
  OnRun(advanced, invocation, [&global, state, kind] {
    return RunSetLevel(global, TargetOf(*state, kind), state->off ? AuthLevel::kUser : AuthLevel::kAdvanced);
  });
  OnRun(drop, invocation, [&global, state, kind] { return RunDropGrants(global, TargetOf(*state, kind)); });
}

}  // namespace

void AddAccountCommands(CLI::App& app, Invocation& invocation) {
  const auto state = std::make_shared<State>();
  CLI::App* user =
      app.add_subcommand("user", "Users of the cluster; run it on a host, as the account that owns the daemon's files");
  CLI::App* group = app.add_subcommand("group", "What groups may do; run it as 'vexa user'");
  for (CLI::App* command : {user, group}) {
    AddPlaces(*command, state);
    command->require_subcommand(1);
  }
  AddUserCommands(*user, invocation, state);
  AddGrantCommands(*user, invocation, state, AccountKind::kUser);
  AddGrantCommands(*group, invocation, state, AccountKind::kGroup);
}

}  // namespace vexa::cli
