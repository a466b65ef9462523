// vexa cluster.
#include <CLI/CLI.hpp>
#include <memory>
#include <string>

#include "cli/cluster_command.h"
#include "cli/commands.h"

namespace vexa::cli {
namespace {

constexpr const char* kClusterFooter =
    "\nExamples:\n  vexa cluster init --dir /root/cluster\n"
    "  vexa cluster certificate --dir /root/cluster --host-id 6f1c2a0e-4a57-4f0c-8b2e-0d9b1f6f3c55 --out host1\n\n"
    "A host's id is in the file host-id of its data folder. Its daemon then takes tls-certificate = host.pem,\n"
    "tls-key = host.key and client-authority = authority.pem of the --out folder, and cluster-listen =\n"
    "\"address:port\". The files belong to the account that runs the command; the daemon's account must be able to\n"
    "read them.";

struct State {
  std::string directory;
  std::string host_id;
  std::string out;
  bool replace = false;
};

}  // namespace

void AddClusterCommands(CLI::App& app, Invocation& invocation) {
  const auto state = std::make_shared<State>();
  const GlobalOptions& global = invocation.global;
  auto* cluster = app.add_subcommand("cluster", "Make the certificates by which hosts know each other");
  cluster->require_subcommand(1);
  cluster->footer(kClusterFooter);

  auto* init = cluster->add_subcommand("init", "Make the authority of a new cluster");
  init->add_option("--dir", state->directory, "The folder for its key and certificate")->type_name("DIR")->required();
  init->callback([&invocation, &global, state] {
    invocation.run = [&global, state] { return RunClusterInit(global, state->directory); };
  });

  auto* certificate = cluster->add_subcommand("certificate", "Make a host's key and certificate");
  certificate->add_option("--dir", state->directory, "The folder of the authority")->type_name("DIR")->required();
  certificate->add_option("--host-id", state->host_id, "The host's id, as in its data folder")
      ->type_name("ID")
      ->required();
  certificate->add_option("--out", state->out, "The folder for the host's files")->type_name("DIR")->required();
  certificate->add_flag("--replace", state->replace, "Replace the host's key and certificate");
  certificate->callback([&invocation, &global, state] {
    invocation.run = [&global, state] {
      return RunClusterCertificate(global, state->directory, state->host_id, state->out,
                                   state->replace ? IfPresent::kReplace : IfPresent::kRefuse);
    };
  });
}

}  // namespace vexa::cli
