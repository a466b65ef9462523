// vexa import.
#include <CLI/CLI.hpp>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include "cli/commands.h"
#include "cli/import_command.h"
#include "cli/printable.h"

namespace vexa::cli {
namespace {

constexpr const char* kImportFooter = R"(
Examples:
  virsh dumpxml web-1 > web-1.xml && vexa import web-1.xml --disk-size vda=20
  vexa import --all qemu:///system --dry-run
  vexa import --manifest examples/cluster.json

Each guest is written whole or not at all; one that cannot be imported does not keep the others from it. Files, images
and libvirt are those of this machine. For administrators.)";

ExitCode Run(const GlobalOptions& global, const ImportWords& words) {
  const Result<ImportArguments> arguments = ResolveImportArguments(words);
  if (!arguments) {
    std::cerr << "vexa: " << Printable(arguments.error().ToString()) << "\nTry 'vexa import --help'.\n";
    return ExitCode::kUsage;
  }
  return RunImport(global, *arguments);
}

}  // namespace

void AddImportOptions(CLI::App& import, ImportWords& words) {
  import.add_option("FILE", words.files, "Domain XML files");
  import.add_option("--all", words.uri, "Every domain that this libvirt connection knows")->type_name("URI");
  import.add_option("--manifest", words.manifest, "The guests that a JSON file lists")->type_name("FILE");
  import.add_flag("--replace", words.replace, "Replace guests that exist already");
  import.add_flag("--dry-run", words.dry_run, "Have everything checked, print the records as JSON, and change nothing");
  import.add_option("--disk-size", words.disk_sizes, "The size of a disk whose image cannot be read; may be repeated")
      ->type_name("NAME=GiB")
      ->allow_extra_args(false);
  import.add_option("--network", words.networks, "The id of a network or bridge; may be repeated")
      ->type_name("NAME=UUID")
      ->allow_extra_args(false);
  import.add_option("--repository-id", words.repository_id, "The repository that the guests belong to")
      ->type_name("UUID");
  import.add_option("--host-id", words.host_id, "The host that the guests run on")->type_name("UUID");
}

void AddImportCommand(CLI::App& app, Invocation& invocation) {
  const auto words = std::make_shared<ImportWords>();
  auto* import = app.add_subcommand("import", "Import guests from libvirt's domain XML, as 'virsh dumpxml' prints it");
  import->footer(kImportFooter);
  AddImportOptions(*import, *words);
  import->callback([&invocation, words] {
    invocation.run = [&invocation, words] { return Run(invocation.global, *words);
};
}  // namespace vexa::cli
);
}

}  // namespace vexa::cli
