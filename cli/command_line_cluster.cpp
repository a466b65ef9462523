// vexa cluster.
#include <memory>

#include "cli/cluster_command.h"
#include "cli/commands.h"
#include "cli/settings_command.h"

namespace vexa::cli {
namespace {

constexpr const char* kFooter = R"(
Examples:
  vexa cluster init --dir /root/cluster
  vexa cluster certificate --dir /root/cluster --host-id 6f1c2a0e-4a57-4f0c-8b2e-0d9b1f6f3c55 --out host1

A host's id is in the file host-id of its data folder. Its daemon needs the settings cluster-certificate = host.pem,
cluster-key = host.key and cluster-authority = authority.pem, with the files of the --out folder, and cluster-listen =
"address:port". The files belong to the account that runs the command; the daemon's account must be able to read them.

A running daemon uses files that replace these within seconds. While a host has the setting authority-key =
authority.key, all hosts renew their certificates by themselves; otherwise make new ones in time, or give them more
--days.)";

}  // namespace

void AddClusterCommands(const Command& app) {
  const Command cluster =
      app.AddGroup("cluster", "Certificates by which hosts recognize each other, and settings of all hosts");
  cluster.Footer(kFooter);

  const Command init = cluster.AddCommand("init", "Create the authority of a new cluster");
  const auto directory = std::make_shared<std::string>();
  init.AddOption("--dir", *directory, "The folder for its key and certificate").Placeholder("DIR").Required();
  init.OnRun(directory, RunClusterInit);

  const Command certificate = cluster.AddCommand("certificate", "Create a host's key and certificate");
  const auto options = std::make_shared<CertificateOptions>();
  certificate.AddOption("--dir", options->directory, "The folder of the authority").Placeholder("DIR").Required();
  certificate.AddOption("--host-id", options->host_id, "The host's id, as in its data folder")
      .Placeholder("ID")
      .Required();
  certificate.AddOption("--out", options->out, "The folder for the host's files").Placeholder("DIR").Required();
  certificate.AddOption("--days", options->days, "The number of days until it expires (default: 30)").InRange(1, 3650);
  certificate.AddFlag(
      "--replace", [options] { options->if_present = IfPresent::kReplace; }, "Replace the host's key and certificate");
  certificate.OnRun(options, RunClusterCertificate);

  const Command settings = cluster.AddCommand("settings", "Show or change the cluster's settings (administrators)");
  const auto switches = std::make_shared<ClusterSettingsOptions>();
  settings
      .AddOption("--auto-select-host", switches->auto_select_host,
                 "Whether guests without a host are assigned one when they are started (at first on)")
      .Placeholder("on|off")
      .OneOf({"on", "off"});
  settings
      .AddOption("--upgrading", switches->upgrading,
                 "Whether the hosts are between two versions that cannot read each other's records (at first off)")
      .Placeholder("on|off")
      .OneOf({"on", "off"});
  settings.Footer(R"(
While --upgrading is on, guests are shown as frozen, and a host does not end the guests of other hosts.

Example:
  vexa cluster settings --auto-select-host off)");
  settings.OnRun(switches, RunClusterSettings);
}

}  // namespace vexa::cli
