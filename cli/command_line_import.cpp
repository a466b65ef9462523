// vexa import.
#include <iostream>
#include <memory>
#include <string>

#include "cli/commands.h"
#include "cli/import_command.h"
#include "cli/printable.h"

namespace vexa::cli {
namespace {

constexpr const char* kFooter = R"(
Examples:
  virsh dumpxml web-1 > web-1.xml && vexa import web-1.xml --disk-size vda=20
  vexa import --all qemu:///system --repository pool --network br0=lan --dry-run
  vexa import --manifest examples/cluster.json

Each guest is imported completely or not at all; one that cannot be imported does not prevent the others. Files, images
and libvirt are those of this machine. For administrators.)";

ExitCode Run(const GlobalOptions& global, const RawImportArguments& raw) {
  const Result<ImportArguments> arguments = ResolveImportArguments(raw);
  if (!arguments) {
    std::cerr << "vexa: " << Printable(arguments.error().ToString()) << "\nTry 'vexa import --help'.\n";
    return ExitCode::kUsage;
  }
  return RunImport(global, *arguments);
}

}  // namespace

void AddImportOptions(const Command& import, RawImportArguments& arguments) {
  import.AddOption("FILE", arguments.files, "Import these domain XML files");
  import.AddOption("--all", arguments.uri, "Import all domains of this libvirt connection").Placeholder("URI");
  import.AddOption("--manifest", arguments.manifest, "Import the guests that a JSON file lists").Placeholder("FILE");
  import.AddFlag("--replace", arguments.replace, "Replace guests that exist already");
  import.AddFlag("--copy-disks", arguments.copy_disks,
                 "Copy the images of disks into the repository; without it, they stay where they are");
  import.AddFlag("--dry-run", arguments.dry_run,
                 "Have everything checked, print the records as JSON, and change nothing");
  import
      .AddOption("--disk-size", arguments.disk_sizes, "The size of a disk whose image cannot be read; may be repeated")
      .Placeholder("NAME=GiB")
      .TakesOneValue();
  import
      .AddOption("--network", arguments.networks,
                 "The network, by id or name, for a network or bridge of the definition; may be repeated")
      .Placeholder("NAME=NETWORK")
      .TakesOneValue();
  import
      .AddOption("--repository,--repository-id", arguments.repository,
                 "The repository of the guests, by id or name (default: the only one of their host)")
      .Placeholder("REPOSITORY");
  import
      .AddOption("--host,--host-id", arguments.host,
                 "The host of the guests, by id or name (default: the one that is asked)")
      .Placeholder("HOST");
}

void AddImportCommand(const Command& app) {
  const Command import =
      app.AddCommand("import", "Import guests from libvirt's domain XML, as 'virsh dumpxml' prints it");
  import.Footer(kFooter);
  const auto arguments = std::make_shared<RawImportArguments>();
  AddImportOptions(import, *arguments);
  import.OnRun(arguments, Run);
}

}  // namespace vexa::cli
