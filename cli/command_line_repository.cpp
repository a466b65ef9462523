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
  vexa repository get pool-1
  vexa repository limits pool-1 --soft 80 --hard 95
  vexa repository rename pool-1 pool-a
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
  add.AddOption("--host,--host-id", options->host,
                "The host that has its disks, by id or name (default: the host that is asked)")
      .Placeholder("HOST");
  add.OnRun(options, RunRepositoryAdd);

  const auto name = std::make_shared<std::string>();
  const Command accept = repository.AddCommand("accept", "Accept the current storage of a repository (administrators)");
  accept.Footer(
      "\nFor storage that was replaced for good, such as disks restored to a new file system. Mount it first.");
  accept.AddOption("REPOSITORY", *name, "Its id or name").Required();
  accept.OnRun(name, RunRepositoryAccept);

  repository.AddCommand("list", "List the repositories (--json: with the folders of their disks, for administrators)")
      .OnRunOrWatch(RunRepositoryList);

  const Command get =
      repository.AddCommand("get", "Show a repository, its disks, and files of no guest in it (administrators)");
  get.AddOption("REPOSITORY", *name, "Its id or name").Required();
  get.OnRunOrWatch(name, RunRepositoryGet);

  const Command rename = repository.AddCommand("rename", "Give a repository another name (administrators)");
  const auto renamed = std::make_shared<RenameOptions>();
  rename.AddOption("REPOSITORY", renamed->object, "Its id or name").Required();
  rename.AddOption("NAME", renamed->name, "Its new name").Required();
  rename.OnRun(renamed, RunRepositoryRename);

  const Command limits =
      repository.AddCommand("limits", "Set from when on a repository runs out of space and is full (administrators)");
  limits.Footer("\nWithout an option, the setting of the repository's host applies again.");
  const auto percents = std::make_shared<RepositoryLimitsOptions>();
  limits.AddOption("REPOSITORY", percents->repository, "Its id or name").Required();
  limits.AddOption("--soft", percents->soft, "Warn from this used percentage on; 0: never").Placeholder("PERCENT");
  limits.AddOption("--hard", percents->hard, "Start and enlarge nothing from here on; 0: never").Placeholder("PERCENT");
  limits.OnRun(percents, RunRepositoryLimits);

  const Command remove =
      repository.AddCommand("remove", "Remove a repository without guests and disks (administrators)");
  remove.Footer("\nFiles stay. When guests or disks are in the repository, the error names them.");
  remove.AddOption("REPOSITORY", *name, "Its id or name").Required();
  remove.OnRun(name, RunRepositoryRemove);
}

}  // namespace vexa::cli
