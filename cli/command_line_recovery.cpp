// The commands about hosts that are gone.
#include <CLI/CLI.hpp>
#include <memory>

#include "cli/commands.h"
#include "cli/recovery_command.h"

namespace vexa::cli {
namespace {

constexpr const char* kOffHelp =
    "Confirm that the host's machine is off. Two machines that use the same disks destroy them";

}  // namespace

void AddRecoveryCommands(CLI::App& app, Invocation& invocation) {
  CLI::App* recover = app.get_subcommand("guest")->add_subcommand(
      "recover", "Take guests from a host that is inaccessible (administrators)");
  auto guest = std::make_shared<RecoverOptions>();
  recover->add_option("GUEST", guest->guests, "The guests' ids or names")->required();
  recover->add_option("--to", guest->to_host,
                      "The host that they are to have, id or name (default: any, at the next start)");
  recover->add_flag_callback(
      "--machine-is-off", [guest] { guest->machine = MachineIs::kConfirmedOff; }, kOffHelp);
  recover->add_flag("--discard-saved", guest->discard_saved, "Their saved memory, which is on the host, may be lost");
  recover->footer(
      "\nThe guests are shut down from then on and can be started on other hosts that reach their disks. The\n"
      "confirmation is not needed where the machine of the host was started again since. A host that comes back ends\n"
      "the guests' machines before it does anything else.\n\nExample:\n  vexa guest recover web-1 --machine-is-off\n"
      "  vexa guest start web-1 --wait");
  recover->callback([&invocation, guest] {
    invocation.run = [&invocation, guest] { return RunGuestRecover(invocation.global, *guest); };
  });

  CLI::App* forget = app.get_subcommand("host")->add_subcommand(
      "forget", "Remove a host that is gone for good from the cluster (administrators)");
  auto host = std::make_shared<ForgetOptions>();
  forget->add_option("HOST", host->host, "The host's id or name")->required();
  forget->add_flag_callback(
      "--machine-is-off", [host] { host->machine = MachineIs::kConfirmedOff; }, kOffHelp);
  forget->add_flag("--recover-guests", host->recover_guests,
                   "Recover the guests that it has, too; their saved memory is lost");
  forget->footer(
      "\nIts repositories stay and are shown as inaccessible. Its vexad does not start again unless it joins as a new\n"
      "host (without the file 'host-id' in its data folder) or is started once with --take-host-id.");
  forget->callback([&invocation, host] {
    invocation.run = [&invocation, host] { return RunHostForget(invocation.global, *host); };
  });
}

}  // namespace vexa::cli
