// The commands that start, stop and delete guests, and the cluster log.
#include <fmt/format.h>

#include <memory>

#include "cli/commands.h"
#include "cli/log_command.h"
#include "cli/power_command.h"

namespace vexa::cli {
namespace {

constexpr const char* kTimeoutFooter = R"(
Without --timeout the server has 3600 s for each guest. Ctrl-C ends the command immediately and reports for which
guests the server has answered; requests that were sent are not cancelled. A name that is unknown or belongs to several
guests stops the command before anything is sent.)";

constexpr const char* kRestartFooter = R"(
There is no --wait, because a guest that reboots keeps running.)";

constexpr const char* kSuspendFooter = R"(
A suspended guest executes nothing and keeps its memory and processors. Its state is freeze. Nothing but 'vexa guest
resume' lets it run again; a power failure ends it as it ends a running guest.)";

constexpr const char* kSaveFooter = R"(
The memory goes to a file of the guest's host, and the guest uses no memory or processors until it is restored. A guest
with a device that cannot be saved is refused, with the reason, and goes on.)";

constexpr const char* kRestoreFooter = R"(
'vexa guest start' restores a guest, too; this command also makes sure that it has saved memory. A guest that was
suspended when it was saved runs then.)";

constexpr const char* kDeleteFooter = R"(
Asks on the terminal first; without a terminal it refuses unless --yes is given. A running guest is not deleted: its host
refuses, so shut it down first. When the command succeeds, the guest has been deleted.)";

constexpr const char* kDiscardFooter = R"(
A guest that libvirt saved ('virsh managedsave', or a shutdown of its host) has the state saved, and 'vexa guest start'
resumes it. Without its memory it starts as after a power cut: data that it had not written to its disks is lost.)";

constexpr const char* kReleaseFooter = R"(
libvirt keeps the current definition of each guest, without VEXA's ownership tag, and starts the guest with the host
again if it did so before the import. All files stay. The cluster removes the guest and its grants; 'vexa import' brings
it back.)";

// A command that performs an action on guests.
struct Action {
  Command command;
  std::shared_ptr<GuestActionOptions> options;
};

Action AddAction(const Command& guest, GuestAction action, const char* name, const char* help) {
  Action added{guest.AddCommand(name, help), std::make_shared<GuestActionOptions>()};
  added.options->action = action;
  added.command.AddOption("GUEST", added.options->guests, "Ids or names of guests; several are processed concurrently")
      .Required();
  added.command.OnRun(added.options, RunGuestAction);
  return added;
}

void AddAwaitedAction(const Command& guest, GuestAction action, const char* name, const char* help,
                      const char* wait_help) {
  const Action added = AddAction(guest, action, name, help);
  added.command.AddFlag(
      "--wait", [options = added.options] { options->waiting = Waiting::kUntilDone; }, wait_help);
  added.command
      .AddOption("--wait-timeout", added.options->wait_timeout_s,
                 "How long to wait for that, 1 to 86400 s (default 300)")
      .Placeholder("SECONDS")
      .InRange(1, 86'400);
  added.command.Footer(kTimeoutFooter);
}

void AddDelete(const Command& guest) {
  const Action added = AddAction(guest, GuestAction::kDelete, "delete", "Delete guests with all their disks");
  added.command.AddFlag(
      "-y,--yes", [options = added.options] { options->confirmation = Confirmation::kGiven; }, "Do not ask");
  added.command.Footer(fmt::format("{}{}", kDeleteFooter, kTimeoutFooter));
}

void AddLog(const Command& app) {
  constexpr int kMaxLines = 100'000;
  const Command log =
      app.AddCommand("log", "Show the cluster log, the newest entry last (administrators, advanced users)");
  const auto options = std::make_shared<LogOptions>();
  const Option all = log.AddFlag(
      "--all", [options] { options->range = LogOptions::Range::kAll; }, "All entries of the log");
  log.AddOption("-n,--lines", options->count, "How many of the newest entries (default 50)")
      .Placeholder("COUNT")
      .InRange(0, kMaxLines)
      .Excludes(all);
  log.AddFlag(
      "-f,--follow", [options] { options->following = LogOptions::Following::kYes; },
      "Then print new entries as they arrive, until Ctrl-C");
  log.Footer(
      "\nTimes are local. With --json each entry is an object on a line of its own.\n\nExamples:\n  vexa log -n 20\n"
      "  vexa log -f -n 0\n  vexa log --all --json | jq -r 'select(.priority == 1) | .text'");
  log.OnRun(options, RunLog);
}

}  // namespace

void AddActionCommands(const Command& app) {
  const Command guest = app.Group("guest");
  AddAwaitedAction(guest, GuestAction::kStart, "start", "Power guests on", "Wait until each guest is running");
  AddAwaitedAction(guest, GuestAction::kStop, "stop", "Ask guests to shut down", "Wait until each guest has shut down");
  AddAwaitedAction(guest, GuestAction::kKill, "kill", "Power guests off immediately, as if unplugged",
                   "Wait until the state of each guest is shutdown");
  AddAction(guest, GuestAction::kRestart, "restart", "Reboot guests")
      .command.Footer(fmt::format("{}{}", kRestartFooter, kTimeoutFooter));
  AddAction(guest, GuestAction::kSuspend, "suspend", "Pause running guests, which keep their memory")
      .command.Footer(fmt::format("{}{}", kSuspendFooter, kTimeoutFooter));
  AddAction(guest, GuestAction::kResume, "resume", "Let suspended guests run again").command.Footer(kTimeoutFooter);
  AddAction(guest, GuestAction::kSave, "save", "Save the memory of guests to disk, and end them")
      .command.Footer(fmt::format("{}{}", kSaveFooter, kTimeoutFooter));
  AddAction(guest, GuestAction::kRestore, "restore", "Start guests from their saved memory")
      .command.Footer(fmt::format("{}{}", kRestoreFooter, kTimeoutFooter));
  AddDelete(guest);
  AddAction(guest, GuestAction::kDiscardSaved, "discard-saved",
            "Remove the saved memory of guests, which are then shut down")
      .command.Footer(kDiscardFooter);
  AddAction(guest, GuestAction::kRelease, "release", "Return guests that are off to libvirt (administrators)")
      .command.Footer(kReleaseFooter);
  AddLog(app);
}

}  // namespace vexa::cli
