// The commands about accounts and what they may do: clients of the API, or with --local on the store of this host.
#include <CLI/CLI.hpp>
#include <algorithm>
#include <functional>
#include <memory>
#include <optional>

#include "cli/commands.h"
#include "cli/grant_command.h"
#include "cli/local_grant_command.h"
#include "cli/local_user_command.h"
#include "cli/user_command.h"

namespace vexa::cli {
namespace {

constexpr const char* kFooter = R"(
The daemon is asked, as by all other commands. Everything is for administrators, except setting your own password.
Before the daemon's first start, and for repairs while it is stopped, --local works on the store itself: as the account
that owns it, with the folders that the daemon's configuration names. --data, --store and --accounts name them instead.

Examples:
  vexa user add alice --group administrators
  sudo -u vexa vexa user add admin --group administrators --local    # before the first start of vexad
  vexa user passwd                                                   # one's own
  vexa user grant alice 6f1c2a0e-4a57-4f0c-8b2e-0d9b1f6f3c55)";

// What the account commands share; one is alive for all of them.
struct State {
  NewUserOptions user;
  std::vector<std::string> words;  // guests or groups
  std::string guest;
  bool from_system = false;
  bool by_id = false;
  bool off = false;
  bool show = false;
  bool has_name = false;

  // Of the work without a daemon.
  bool local = false;
  std::string configuration;
  AccountPlaces named;
  std::vector<const CLI::Option*> configuration_options;  // each of them means --local as well
  std::vector<const CLI::Option*> place_options;

  static bool IsGiven(const std::vector<const CLI::Option*>& options) {
    return std::any_of(options.begin(), options.end(), [](const CLI::Option* option) { return option->count() > 0; });
  }
  bool IsLocal() const { return IsGiven(configuration_options) || IsGiven(place_options); }
  // The configuration counts only where it is asked for: --data may name the folder of another daemon.
  Result<AccountPlaces> Places() const {
    return IsGiven(configuration_options) ? PlacesInConfiguration(configuration) : Result<AccountPlaces>(named);
  }
};
using Shared = std::shared_ptr<State>;

void AddPlaces(CLI::App& command, const Shared& state) {
  CLI::Option* const local =
      command.add_flag("--local", state->local, "Work on the store of this host while no daemon runs");
  CLI::Option* const configuration =
      command.add_option("--config", state->configuration, "The daemon's configuration (with --local)")
          ->type_name("FILE");
  CLI::Option* const data =
      command.add_option("--data", state->named.data_directory, "The daemon's data folder (as --local)")
          ->type_name("DIR");
  CLI::Option* const store =
      command
          .add_option("--store", state->named.other_store, "The store, when it is not in the data folder (as --local)")
          ->type_name("DIR");
  CLI::Option* const accounts =
      command
          .add_option("--accounts", state->named.other_accounts_path,
                      "An account file of an older version, when it is not accounts.json in the data folder (as "
                      "--local)")
          ->type_name("PATH");
  for (CLI::Option* const place : {data, store, accounts}) place->excludes(local)->excludes(configuration);
  state->configuration_options.insert(state->configuration_options.end(), {local, configuration});
  state->place_options.insert(state->place_options.end(), {data, store, accounts});
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

using Remote = std::function<ExitCode()>;
using Local = std::function<ExitCode(const AccountPlaces& places)>;

// `local` may be empty: then the command needs a daemon.
void OnRun(CLI::App* command, Invocation& invocation, const Shared& state, Remote remote, Local local = {}) {
  command->callback([&invocation, state, remote = std::move(remote), local = std::move(local)] {
    invocation.run = [state, remote, local] {
      if (!state->IsLocal()) return remote();
      if (!local)
        return Report(Error(ErrorCode::kInvalid, "This command asks the daemon, and cannot work with --local"));
      const Result<AccountPlaces> places = state->Places();
      return places ? local(*places) : Report(places.error());
    };
  });
}

ExitCode LocalPasswd(const GlobalOptions& global, const AccountPlaces& places, const State& state) {
  if (state.has_name) return RunLocalUserPasswd(global, places, state.user.name, state.user.password);
  return Report(Error(ErrorCode::kInvalid, "Name the user whose password is set: --local does not know who you are"));
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
  OnRun(
      add, invocation, state, [&global, state] { return RunUserAdd(global, state->user); },
      [&global, state](const auto& places) { return RunLocalUserAdd(global, places, state->user); });

  CLI::App* passwd = user.add_subcommand("passwd", "Set a user's password, or one's own with the old one");
  passwd->add_option_function<std::string>(
      "NAME",
      [state](const std::string& name) {
        state->user.name = name;
        state->has_name = true;
      },
      "The user's name; without it one's own password is set");
  passwd->footer(
      "\nWithout NAME, --password-stdin reads your old password from the first line and the new one from the second.");
  AddPasswordFlag(*passwd, state);
  OnRun(
      passwd, invocation, state,
      [&global, state] {
        return RunUserPasswd(global, state->has_name ? std::optional(state->user.name) : std::nullopt,
                             state->user.password);
      },
      [&global, state](const auto& places) { return LocalPasswd(global, places, *state); });

  CLI::App* group = AddNamed(user, state, "group", "Replace the groups of a user");
  group->add_option("GROUP", state->words, "The groups")->required();
  OnRun(
      group, invocation, state, [&global, state] { return RunUserGroup(global, state->user.name, state->words); },
      [&global, state](const auto& places) {
        return RunLocalUserGroup(global, places, state->user.name, state->words);
      });

  CLI::App* del = AddNamed(user, state, "del", "Delete a user and what was granted to them");
  OnRun(
      del, invocation, state, [&global, state] { return RunUserDel(global, state->user.name); },
      [&global, state](const auto& places) { return RunLocalUserDel(global, places, state->user.name); });

  CLI::App* list = user.add_subcommand("list", "List the users");
  OnRun(
      list, invocation, state, [&global] { return RunUserList(global); },
      [&global](const auto& places) { return RunLocalUserList(global, places); });
}

void AddGroupCommands(CLI::App& group, Invocation& invocation, const Shared& state) {
  const GlobalOptions& global = invocation.global;
  CLI::App* list = group.add_subcommand("list", "List the groups with their members");
  OnRun(list, invocation, state, [&global] { return RunGroupList(global); });
  CLI::App* del = AddNamed(group, state, "del", "Delete a group that nobody is in, and what was granted to it");
  OnRun(del, invocation, state, [&global, state] { return RunGroupDel(global, state->user.name); });
}

GrantTarget TargetOf(const State& state, AccountKind kind) {
  return {kind, state.user.name, state.from_system ? NameSource::kSystem : NameSource::kAccounts,
          state.by_id ? NameForm::kId : NameForm::kName};
}

void AddLevelCommand(CLI::App& parent, Invocation& invocation, const Shared& state, AccountKind kind) {
  const GlobalOptions& global = invocation.global;
  CLI::App* advanced = AddNamed(parent, state, "advanced", "Make an account an advanced one");
  CLI::Option* const off = advanced->add_flag("--off", state->off, "Make it an ordinary one again");
  advanced->add_flag("--show", state->show, "Only show whether it is: 'advanced' or 'user'")->excludes(off);
  advanced->add_flag("--system", state->from_system,
                     "NAME is one of the machine's own: for daemons that take their users from PAM");
  advanced->add_flag("--id", state->by_id, "NAME is a numeric id");
  const auto level = [state] { return state->off ? cluster::GrantLevel::kUser : cluster::GrantLevel::kAdvanced; };
  OnRun(
      advanced, invocation, state,
      [&global, state, kind, level] {
        const GrantTarget target = TargetOf(*state, kind);
        return state->show ? RunShowLevel(global, target) : RunSetLevel(global, target, level());
      },
      [&global, state, kind, level](const auto& places) {
        if (state->show)
          return Report(Error(ErrorCode::kInvalid, "--show asks the daemon, and cannot work with --local"));
        return RunLocalSetLevel(global, places, TargetOf(*state, kind), level());
      });
}

void AddGrantCommands(CLI::App& parent, Invocation& invocation, const Shared& state, AccountKind kind) {
  const GlobalOptions& global = invocation.global;
  CLI::App* grant = AddNamed(parent, state, "grant", "Allow the use of guests");
  CLI::App* revoke = AddNamed(parent, state, "revoke", "Take the use of guests back");
  CLI::App* drop = AddNamed(parent, state, "drop-grants", "Drop all grants and the level of an account");
  CLI::App* grants = AddNamed(parent, state, "grants", "Show the guests and the level of an account");
  for (CLI::App* command : {grant, revoke, drop, grants}) {
    command->add_flag("--system", state->from_system,
                      "NAME is one of the machine's own: for daemons that take their users from PAM");
    command->add_flag("--id", state->by_id, "NAME is a numeric id");
  }
  for (CLI::App* command : {grant, revoke}) {
    command->add_option("GUEST_ID", state->words, "The guests' ids")->required();
  }
  const auto target = [state, kind] { return TargetOf(*state, kind); };
  OnRun(
      grant, invocation, state, [&global, state, target] { return RunGrant(global, target(), state->words); },
      [&global, state, target](const auto& places) { return RunLocalGrant(global, places, target(), state->words); });
  OnRun(
      revoke, invocation, state, [&global, state, target] { return RunRevoke(global, target(), state->words); },
      [&global, state, target](const auto& places) { return RunLocalRevoke(global, places, target(), state->words); });
  OnRun(
      drop, invocation, state, [&global, target] { return RunDropGrants(global, target()); },
      [&global, target](const auto& places) { return RunLocalDropGrants(global, places, target()); });
  OnRun(grants, invocation, state, [&global, target] { return RunListGrants(global, target()); });
  AddLevelCommand(parent, invocation, state, kind);
}

}  // namespace

void AddAccountCommands(CLI::App& app, Invocation& invocation) {
  const auto state = std::make_shared<State>();
  CLI::App* user = app.add_subcommand("user", "The users of the cluster, and what they may do");
  CLI::App* group = app.add_subcommand("group", "The groups of the cluster, and what they may do");
  for (CLI::App* command : {user, group}) {
    AddPlaces(*command, state);
    command->require_subcommand(1);
  }
  AddUserCommands(*user, invocation, state);
  AddGrantCommands(*user, invocation, state, AccountKind::kUser);
  AddGroupCommands(*group, invocation, state);
  AddGrantCommands(*group, invocation, state, AccountKind::kGroup);
  // Behind their commands, which would take the text over.
  user->footer(kFooter);
  group->footer(kFooter);

  CLI::App* of_guest =
      app.get_subcommand("guest")->add_subcommand("grants", "Show the users and groups that a guest was granted to");
  of_guest->add_option("GUEST", state->guest, "Its id or name")->required();
  OnRun(of_guest, invocation, state,
        [global = &invocation.global, state] { return RunGuestGrants(*global, state->guest); });
}

}  // namespace vexa::cli
