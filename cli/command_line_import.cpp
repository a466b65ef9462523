// vexa import.
#include <CLI/CLI.hpp>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include "cli/commands.h"
#include "cli/import_command.h"
#include "cli/printable.h"
#include "host/store/lmdb_store.h"

namespace vexa::cli {
namespace {

constexpr const char* kImportFooter = R"(
Examples:
  virsh dumpxml web-1 > web-1.xml && vexa import web-1.xml --disk-size vda=20
  vexa import --all qemu:///system --dry-run
  vexa import --manifest examples/cluster.json

Each guest is written whole or not at all; one that cannot be imported does not keep the others from it.)";

struct State {
  ImportWords words;
  std::string data_directory = "/var/lib/vexa";
};

ExitCode Run(const GlobalOptions& global, const State& state) {
  const Result<ImportArguments> arguments = ResolveImportArguments(state.words);
  if (!arguments) {
    std::cerr << "vexa: " << Printable(arguments.error().ToString()) << "\nTry 'vexa import --help'.\n";
    return ExitCode::kUsage;
  }
  store::LmdbOptions options;
  options.directory = state.data_directory + "/store";
  const auto store = store::OpenLmdbStore(options);
  if (!store) {
    std::cerr << "vexa: " << Printable(store.error().ToString()) << "\n";
    return ExitCode::kFailed;
  }
  std::ostream quiet(nullptr);
  const bool to_output = !global.quiet || arguments->mode == ImportMode::kDryRun;
  const Status imported = RunImport(*arguments, **store, to_output ? std::cout : quiet, std::cerr);
  if (imported) return ExitCode::kOk;
  std::cerr << "vexa: " << Printable(imported.error().ToString()) << "\n";
  return ExitCode::kFailed;
}

}  // namespace

void AddImportOptions(CLI::App& import, ImportWords& words) {
  import.add_option("FILE", words.files, "Domain XML files");
  import.add_option("--all", words.uri, "Every domain that this libvirt connection knows")->type_name("URI");
  import.add_option("--manifest", words.manifest, "The guests that a JSON file lists")->type_name("FILE");
  import.add_flag("--replace", words.replace, "Replace guests that exist already");
  import.add_flag("--dry-run", words.dry_run, "Print the records as JSON and write nothing");
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
  const auto state = std::make_shared<State>();
  auto* import = app.add_subcommand("import", "Import guests from libvirt's domain XML, as 'virsh dumpxml' prints it");
  import->footer(kImportFooter);
  AddImportOptions(*import, state->words);
  import->add_option("--data", state->data_directory, "The daemon's data folder")
      ->type_name("DIR")
      ->capture_default_str();
  import->callback(
      [&invocation, state] { invocation.run = [&invocation, state] { return Run(invocation.global, *state);
};
}  // namespace vexa::cli
);
}

}  // namespace vexa::cli
