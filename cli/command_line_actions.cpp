// The commands that start, stop and delete guests, and the cluster log.
#include <CLI/CLI.hpp>
#include <memory>

#include "cli/commands.h"
#include "cli/log_command.h"
#include "cli/power_command.h"

namespace vexa::cli {
namespace {

using Shared = std::shared_ptr<GuestActionOptions>;

constexpr const char* kTimes =
    "\nWithout --timeout the server has 3600 s for each guest. Ctrl-C ends the command immediately and reports\n"
    "which guests have been answered; requests that were sent are not taken back. A name that is unknown or belongs\n"
    "to several guests stops the command before anything is sent.";

CLI::App* AddAction(CLI::App& guest, Invocation& invocation, GuestAction action, const char* word, const char* help,
                    Shared& options) {
  options = std::make_shared<GuestActionOptions>();
  options->action = action;
  CLI::App* command = guest.add_subcommand(word, help);
  command->add_option("GUEST", options->guests, "Ids or names of guests; several are worked on concurrently")
      ->required();
  command->callback([&invocation, shared = options] {
    invocation.run = [&invocation, shared] { return RunGuestAction(invocation.global, *shared); };
  });
  return command;
}

void AddWaiting(CLI::App* command, const Shared& options, const char* what) {
  command->add_flag_callback(
      "--wait", [options] { options->waiting = Waiting::kUntilSo; }, what);
  command
      ->add_option("--wait-timeout", options->wait_timeout_s, "How long to wait for that, 1 to 86400 s (default 300)")
      ->type_name("SECONDS")
      ->check(CLI::Range(1, 86'400));
  command->footer(kTimes);
}

void AddLog(CLI::App& app, Invocation& invocation) {
  constexpr int kMost = 100'000;
  auto* log = app.add_subcommand("log", "Show the cluster log, the newest entry last (administrators, advanced users)");
  auto options = std::make_shared<LogOptions>();
  auto* all = log->add_flag_callback(
      "--all", [options] { options->range = LogOptions::Range::kAll; }, "Everything that the log has");
  log->add_option("-n,--lines", options->count, "How many of the newest entries (default 50)")
      ->type_name("COUNT")
      ->check(CLI::Range(0, kMost))
      ->excludes(all);
  log->add_flag_callback(
      "-f,--follow", [options] { options->following = LogOptions::Following::kYes; },
      "Go on with new entries as they come, until Ctrl-C");
  log->footer(
      "\nTimes are local. With --json each entry is an object on a line of its own.\n\nExamples:\n  vexa log -n 20\n"
      "  vexa log -f -n 0\n  vexa log --all --json | jq -r 'select(.priority == 1) | .text'");
  log->callback([&invocation, options] {
    invocation.run = [&invocation, options] { return RunLog(invocation.global, *options); };
  });
}

void AddKeeping(CLI::App& guest, Invocation& invocation) {
  Shared options;
  CLI::App* command = AddAction(guest, invocation, GuestAction::kDiscardSaved, "discard-saved",
                                "Remove the saved memory of guests, which are shut down then", options);
  command->footer(
      "\nA guest that libvirt saved ('virsh managedsave', or a shutdown of its host) is shown as saved, and 'vexa "
      "guest\n"
      "start' resumes it. Without its memory it starts as after a power cut: data that it had not written to its\n"
      "disks is lost.");
  command = AddAction(guest, invocation, GuestAction::kRelease, "release",
                      "Return guests that are off to libvirt (administrators)", options);
  command->footer(
      "\nlibvirt keeps the current definition of each guest, without VEXA's mark, and starts the guest with the host\n"
      "again if it did so before the import. All files stay. The cluster removes the guest and its grants;\n"
      "'vexa import' brings it back.");
}

}  // namespace

void AddActionCommands(CLI::App& app, Invocation& invocation) {
  auto& guest = *app.get_subcommand("guest");
  Shared options;
  CLI::App* command = AddAction(guest, invocation, GuestAction::kStart, "start", "Power guests on", options);
  AddWaiting(command, options, "Wait until each guest is running");
  command = AddAction(guest, invocation, GuestAction::kStop, "stop", "Ask guests to shut down", options);
  AddWaiting(command, options, "Wait until each guest has shut down");
  command = AddAction(guest, invocation, GuestAction::kKill, "kill", "Power guests off immediately, as if unplugged",
                      options);
  AddWaiting(command, options, "Wait until each guest is shown as shut down");
  command = AddAction(guest, invocation, GuestAction::kRestart, "restart", "Reboot guests", options);
  command->footer(
      std::string("\nThere is nothing to wait for beyond the answer: a guest that reboots runs all the while.") +
      kTimes);
  command = AddAction(guest, invocation, GuestAction::kDelete, "delete", "Delete guests with all their disks", options);
  command->add_flag_callback(
      "-y,--yes", [options] { options->confirmation = Confirmation::kGiven; }, "Do not ask");
  command->footer(
      std::string(
          "\nAsks on the terminal first; without a terminal it refuses unless --yes is given. A running guest is\n"
          "not deleted: its host refuses, so shut it down first. The answer means that the guest has been deleted;\n"
          "there is nothing more to wait for.") +
      kTimes);
  AddKeeping(guest, invocation);
  AddLog(app, invocation);
}

}  // namespace vexa::cli
