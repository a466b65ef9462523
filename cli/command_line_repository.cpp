// vexa repository.
#include <CLI/CLI.hpp>
#include <memory>
#include <string>

#include "cli/commands.h"
#include "cli/repository_command.h"

namespace vexa::cli {
namespace {

constexpr const char* kFooter =
    "\nExamples:\n  vexa repository add pool-1\n  vexa repository list\n  vexa repository accept pool-1\n"
    "  vexa repository remove pool-1\n\n"
    "A guest belongs to a repository (vexa import --repository-id): its host is preferred when the guest is started,\n"
    "and deletes the guest's disks.\n\n"
    "A repository becomes unavailable while a folder with its disks is not the one that it was: when nothing is "
    "mounted\n"
    "there, for instance. Its guests are neither started, deleted nor given disks until the folder is back. 'list "
    "--json'\n"
    "shows what is not mounted. When the storage was replaced for good, 'accept' takes it as it is now.";

}  // namespace

void AddRepositoryCommands(CLI::App& app, Invocation& invocation) {
  auto* repository = app.add_subcommand("repository", "The repositories of guests' disks");
  repository->require_subcommand(1);
  repository->footer(kFooter);

  auto* add = repository->add_subcommand("add", "Add a repository, and print its id (administrators)");
  const auto added = std::make_shared<RepositoryAddOptions>();
  add->add_option("NAME", added->name, "Its name")->required();
  add->add_option("--id", added->id, "Its id (default: a new one)")->type_name("UUID");
  add->add_option("--host-id", added->host_id, "The host that has its disks (default: the host that is asked)")
      ->type_name("UUID");
  add->callback([&invocation, added] {
    invocation.run = [&invocation, added] { return RunRepositoryAdd(invocation.global, *added); };
  });

  auto* accept = repository->add_subcommand("accept", "Take the storage of a repository as it is now (administrators)");
  const auto accepted = std::make_shared<std::string>();
  accept->footer(
      "\nFor storage that was replaced for good, such as disks restored to a new file system. Mount it before.");
  accept->add_option("REPOSITORY", *accepted, "Its id or name")->required();
  accept->callback([&invocation, accepted] {
    invocation.run = [&invocation, accepted] { return RunRepositoryAccept(invocation.global, *accepted); };
  });

  auto* list = repository->add_subcommand(
      "list", "Id, host, state and name of each; --json: with the folders of its disks, for administrators");
  list->callback([&invocation] { invocation.run = [&invocation] { return RunRepositoryList(invocation.global); }; });

  auto* remove =
      repository->add_subcommand("remove", "Remove a repository that no guest and no disk is in (administrators)");
  const auto removed = std::make_shared<std::string>();
  remove->footer("\nFiles stay. When guests or disks are in the repository, the error names them.");
  remove->add_option("REPOSITORY", *removed, "Its id or name")->required();
  remove->callback([&invocation, removed] {
    invocation.run = [&invocation, removed] { return RunRepositoryRemove(invocation.global, *removed); };
  });
}

}  // namespace vexa::cli
