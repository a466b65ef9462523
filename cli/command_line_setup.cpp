// vexa setup.
#include <memory>

#include "cli/commands.h"
#include "cli/setup_command.h"

namespace vexa::cli {

void AddSetupCommand(const Command& app) {
  const Command setup =
      app.AddCommand("setup", "Make this machine a host: first administrator, listener, folders (root)");
  const auto options = std::make_shared<SetupOptions>();
  setup.AddOption("--admin", options->admin, "The first administrator; without a terminal, the default is to add none")
      .Placeholder("NAME");
  setup.AddFlag(
      "--password-stdin", [options] { options->password = PasswordSource::kStandardInput; },
      "Read the administrator's password from the first line of standard input");
  setup.AddOption("--listen", options->listen, "Where users reach this host").Placeholder("ADDRESS:PORT");
  setup.AddOption("--images", options->images, "The folder for guests' disks").Placeholder("FOLDER");
  setup
      .AddOption("--hypervisor", options->hypervisor,
                 "What runs guests: qemu:///system, embed, another libvirt, or test")
      .Placeholder("URI");
  setup.AddFlag("--yes", options->assume_yes, "Take the defaults instead of asking");
  setup.AddFlag("--no-start", options->no_start, "Do not start the service");
  setup.AddOption("--config", options->config, "The service's configuration file").Placeholder("PATH");
  setup.AddOption("--units", options->units, "Where the unit's drop-ins go (/etc/systemd/system)")
      .Placeholder("FOLDER");
  setup.AddOption("--account", options->account, "The service's account").Placeholder("NAME");
  setup.Footer(R"(
Writes the settings into the configuration file (its old text goes to vexad.conf.bak), makes the folders for the
service's account, adds the administrator, starts the service, and reports what works: KVM, libvirt, bridges, space.
Running it again is harmless.

  sudo vexa setup
  sudo vexa setup --yes --admin admin --password-stdin --listen 127.0.0.1:8642 < password.txt)");
  setup.OnRun(options, RunSetup);
}

}  // namespace vexa::cli
