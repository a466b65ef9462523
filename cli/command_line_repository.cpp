// vexa repository.
#include <memory>
#include <string>

#include "cli/commands.h"
#include "cli/repository_command.h"

namespace vexa::cli {
namespace {

constexpr const char* kFooter = R"(
Examples:
  vexa repository add pool-1
  vexa repository list
  vexa repository accept pool-1
  vexa repository remove pool-1

A guest belongs to a repository (vexa import --repository-id): its host is preferred when the guest is started, and
deletes the guest's disks.

A repository becomes unavailable while a folder with its disks has been replaced by another, for instance because
nothing is mounted there. Its guests are neither started, deleted nor given disks until the folder is back.
'list --json' shows what is not mounted. When the storage was replaced for good, 'accept' accepts the current storage.)";

}  // namespace

void AddRepositoryCommands(const Command& app) {
  const Command repository = app.AddGroup("repository", "The repositories of guests' disks");
  repository.Footer(kFooter);

  const Command add = repository.AddCommand("add", "Add a repository, and print its id (administrators)");
  const auto options = std::make_shared<RepositoryAddOptions>();
  add.AddOption("NAME", options->name, "Its name").Required();
  add.AddOption("--id", options->id, "Its id (default: a new one)").Placeholder("UUID");
  add.AddOption("--host-id", options->host_id, "The host that has its disks (default: the host that is asked)")
      .Placeholder("UUID");
  add.OnRun(options, RunRepositoryAdd);

  const auto name = std::make_shared<std::string>();
  const Command accept = repository.AddCommand("accept", "Accept the current storage of a repository (administrators)");
  accept.Footer(
      "\nFor storage that was replaced for good, such as disks restored to a new file system. Mount it first.");
  accept.AddOption("REPOSITORY", *name, "Its id or name").Required();
  accept.OnRun(name, RunRepositoryAccept);

  repository.AddCommand("list", "List the repositories (--json: with the folders of their disks, for administrators)")
      .OnRun(RunRepositoryList);

  const Command remove =
      repository.AddCommand("remove", "Remove a repository without guests and disks (administrators)");
  remove.Footer("\nFiles stay. When guests or disks are in the repository, the error names them.");
  remove.AddOption("REPOSITORY", *name, "Its id or name").Required();
  remove.OnRun(name, RunRepositoryRemove);
}

}  // namespace vexa::cli
