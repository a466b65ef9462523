// The commands about hosts that are gone or no longer trusted.
#include <memory>

#include "cli/commands.h"
#include "cli/recovery_command.h"

namespace vexa::cli {
namespace {

// `machine` must outlive the parse.
void AddConfirmation(const Command& command, MachineState& machine) {
  command.AddFlag(
      "--machine-is-off", [&machine] { machine = MachineState::kConfirmedOff; },
      "Confirm that the host's machine is off. Two machines that use the same disks destroy them");
}

void AddRecover(const Command& guest) {
  const Command recover = guest.AddCommand("recover", "Take guests from a host that is inaccessible (administrators)");
  const auto options = std::make_shared<RecoverOptions>();
  recover.AddOption("GUEST", options->guests, "The guests' ids or names").Required();
  recover.AddOption("--to", options->to_host, "The id or name of their new host (default: any, at the next start)")
      .Placeholder("HOST");
  AddConfirmation(recover, options->machine);
  recover.AddFlag("--discard-saved", options->discard_saved, "Discard their saved memory, which only that host has");
  recover.Footer(R"(
The guests are then shut down and can be started on other hosts that reach their disks. The confirmation is not needed
when the host's machine has been started again since. A host that comes back stops the guests' VM processes before it
does anything else.

Example:
  vexa guest recover web-1 --machine-is-off
  vexa guest start web-1 --wait)");
  recover.OnRun(options, RunGuestRecover);
}

void AddForget(const Command& host) {
  const Command forget =
      host.AddCommand("forget", "Remove a host that is gone for good from the cluster (administrators)");
  const auto options = std::make_shared<ForgetOptions>();
  forget.AddOption("HOST", options->host, "The host's id or name").Required();
  AddConfirmation(forget, options->machine);
  forget.AddFlag("--recover-guests", options->recover_guests, "Also recover its guests; their saved memory is lost");
  forget.Footer(R"(
Its repositories stay and are shown as inaccessible. Its vexad does not start again unless it joins as a new host
(without the file 'host-id' in its data folder) or is started once with --take-host-id.)");
  forget.OnRun(options, RunHostForget);
}

void AddRevoke(const Command& host) {
  const Command revoke = host.AddCommand(
      "revoke",
      "Make all hosts refuse the certificates that a host has now, for instance after theft (administrators)");
  const auto revoked_host = std::make_shared<std::string>();
  revoke.AddOption("HOST", *revoked_host, "The host's id or name").Required();
  revoke.Footer(R"(
It takes effect within seconds, also on open connections. Certificates that are made later are accepted: make one with
'vexa cluster certificate --replace'. A host that has the authority's key makes one by itself; after the theft of such a
host, create a new authority. To remove a host from the cluster, use 'vexa host forget'.)");
  revoke.OnRun(revoked_host, RunHostRevoke);
}

}  // namespace

void AddRecoveryCommands(const Command& app) {
  AddRecover(app.Group("guest"));
  AddForget(app.Group("host"));
  AddRevoke(app.Group("host"));
}

}  // namespace vexa::cli
