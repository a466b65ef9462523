// The commands about hosts, and about the status of guests.
#include <memory>
#include <string>

#include "cli/commands.h"
#include "cli/guest_state_command.h"
#include "cli/host_command.h"
#include "cli/settings_command.h"
#include "cli/top_command.h"

namespace vexa::cli {

void AddHostCommands(const Command& app) {
  const Command host = app.AddGroup("host", "Hosts of the cluster");
  host.AddCommand("list", "List the hosts").OnRunOrWatch(RunHostList);
  const Command show = host.AddCommand("show", "Show a host's state, hardware, load and interfaces (administrators)");
  const auto shown_host = std::make_shared<std::string>();
  show.AddOption("HOST", *shown_host, "The host's id or name (default: the host that answers)");
  show.OnRunOrWatch(shown_host, RunHostShow);
  const Command edit = host.AddCommand("edit", "Change the settings of a host (administrators)");
  const auto edited = std::make_shared<HostEditOptions>();
  edit.AddOption("HOST", edited->host, "The host's id or name").Required();
  edit.AddOption("--placement", edited->placement,
                 "Whether the host may be chosen for new guests, and for guests without a host (at first on)")
      .Placeholder("on|off")
      .OneOf({"on", "off"});
  edit.AddOption("--name", edited->name, "A new name, which no other host has").Placeholder("NAME");
  edit.Footer(R"(
With --placement off, the host's own guests are not affected: they run, and can be started. The name is shown in place
of its machine's name.

Examples:
  vexa host edit nas-2 --placement off
  vexa host edit nas-2 --name office-2)");
  edit.OnRun(edited, RunHostEdit);

  const Command top = app.AddCommand("top", "Show hosts and guests with processors and memory, every 2 s, until q");
  const auto top_options = std::make_shared<TopOptions>();
  top.AddFlag("--once", top_options->once, "Print them once");
  top.Footer("\nOnly administrators see the loads of hosts. CPUS and MEMORY of a guest are its settings.");
  top.OnRun(top_options, RunTop);

  const Command guest = app.Group("guest");
  guest.AddCommand("list", "List your guests and their states").OnRunOrWatch(RunGuestList);
  const Command status = guest.AddCommand("status", "Show a guest's state, the reason, and its high availability");
  const auto guest_view = std::make_shared<std::string>();
  status.AddOption("GUEST", *guest_view, "The guest's id or name").Required();
  status.OnRunOrWatch(guest_view, RunGuestStatus);
  const Command info = guest.AddCommand("info", "Show a running guest's addresses and uptime");
  const auto guest_name = std::make_shared<std::string>();
  info.AddOption("GUEST", *guest_name, "Its id or name").Required();
  info.OnRunOrWatch(guest_name, RunGuestInfo);
}

}  // namespace vexa::cli
