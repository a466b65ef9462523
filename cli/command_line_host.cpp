// The commands about hosts, and about the status of guests.
#include <CLI/CLI.hpp>
#include <memory>
#include <string>

#include "cli/commands.h"
#include "cli/guest_state_command.h"
#include "cli/host_command.h"

namespace vexa::cli {

void AddHostCommands(CLI::App& app, Invocation& invocation) {
  auto* host = app.add_subcommand("host", "Hosts of the cluster");
  host->require_subcommand(1);
  host->add_subcommand("list", "List the hosts")->callback([&invocation] {
    invocation.run = [&invocation] { return RunHostList(invocation.global); };
  });
  auto* show = host->add_subcommand("show", "Show a host's state, figures and interfaces (administrators)");
  auto which = std::make_shared<std::string>();
  show->add_option("HOST", *which, "The host's id or name (default: the host that answers)");
  show->callback([&invocation, which] {
    invocation.run = [&invocation, which] { return RunHostShow(invocation.global, *which); };
  });

  auto* guest = app.get_subcommand("guest");
  guest->add_subcommand("list", "List your guests and their states")->callback([&invocation] {
    invocation.run = [&invocation] { return RunGuestList(invocation.global); };
  });
  auto* status = guest->add_subcommand("status", "Show a guest's state, the reason, and its high availability");
  auto guest_name = std::make_shared<std::string>();
  status->add_option("GUEST", *guest_name, "The guest's id or name")->required();
  status->callback([&invocation, guest_name] {
    invocation.run = [&invocation, guest_name] { return RunGuestStatus(invocation.global, *guest_name); };
  });
  auto* info = guest->add_subcommand("info", "Show a running guest's addresses and uptime");
  auto id = std::make_shared<std::string>();
  info->add_option("ID", *id, "The guest's id")->required();
  info->callback(
      [&invocation, id] { invocation.run = [&invocation, id] { return RunGuestInfo(invocation.global, *id); }; });
}

}  // namespace vexa::cli
