// vexa repository.
#include <CLI/CLI.hpp>
#include <iostream>
#include <memory>
#include <string>

#include "cli/commands.h"
#include "cli/printable.h"
#include "cli/repository_command.h"
#include "host/base/files.h"
#include "host/store/lmdb_store.h"

namespace vexa::cli {
namespace {

constexpr const char* kFooter =
    "\nExamples:\n  vexa repository add pool-1\n  vexa repository list\n  vexa repository accept pool-1\n\n"
    "A guest belongs to a repository (vexa import --repository-id): its host is preferred when the guest is started,\n"
    "and deletes the guest's disks.\n\n"
    "A repository becomes unavailable while a folder with its disks is not the one that it was: when nothing is "
    "mounted\n"
    "there, for instance. Its guests are neither started, deleted nor given disks until the folder is back. 'list "
    "--json'\n"
    "shows what is not mounted. When the storage was replaced for good, 'accept' takes it as it is now.";

struct State {
  std::string data_directory = "/var/lib/vexa";
  NewRepository repository;
  std::string accepted;
};

ExitCode Fail(const Error& error) {
  std::cerr << "vexa: " << Printable(error.ToString()) << "\n";
  return error.code() == ErrorCode::kInvalid ? ExitCode::kUsage : ExitCode::kFailed;
}

// The host that the data folder belongs to.
Result<std::string> OwnHostId(const std::string& data_directory) {
  Result<std::string> id = ReadFile(data_directory + "/host-id", 4096);
  if (!id) {
    return Error(ErrorCode::kNotFound, "The host's id is not known: start its daemon once, or give --host-id",
                 id.error().ToString());
  }
  while (!id->empty() && id->back() == '\n') id->pop_back();
  return id;
}

template <class Act>
ExitCode WithStore(const State& state, const Act& act) {
  store::LmdbOptions options;
  options.directory = state.data_directory + "/store";
  const auto store = store::OpenLmdbStore(options);
  if (!store) return Fail(store.error());
  const Status done = act(**store);
  return done ? ExitCode::kOk : Fail(done.error());
}

ExitCode RunAdd(State& state) {
  if (state.repository.host_id.empty()) {
    Result<std::string> own = OwnHostId(state.data_directory);
    if (!own) return Fail(own.error());
    state.repository.host_id = std::move(*own);
  }
  return WithStore(state, [&](store::Store& store) { return AddRepository(state.repository, store, std::cout); });
}

}  // namespace

void AddRepositoryCommands(CLI::App& app, Invocation& invocation) {
  const auto state = std::make_shared<State>();
  const GlobalOptions& global = invocation.global;
  auto* repository =
      app.add_subcommand("repository", "The repositories of guests' disks, in the database of this host");
  repository->require_subcommand(1);
  repository->footer(kFooter);
  const auto add_data = [&](CLI::App* command) {
    command->add_option("--data", state->data_directory, "The data folder of the host")
        ->type_name("DIR")
        ->capture_default_str();
  };

  auto* add = repository->add_subcommand("add", "Add a repository, and print its id");
  add->add_option("NAME", state->repository.name, "Its name")->required();
  add->add_option("--id", state->repository.id, "Its id (default: a new one)")->type_name("UUID");
  add->add_option("--host-id", state->repository.host_id, "The host that has its disks (default: this one)")
      ->type_name("UUID");
  add_data(add);
  add->callback([&invocation, state] { invocation.run = [state] { return RunAdd(*state); }; });

  auto* accept = repository->add_subcommand("accept", "Take the storage of a repository as it is now");
  accept->footer(
      "\nFor storage that was replaced for good, such as disks restored to a new file system. Mount it before.");
  accept->add_option("REPOSITORY", state->accepted, "Its id or name")->required();
  add_data(accept);
  accept->callback([&invocation, state] {
    invocation.run = [state] {
      return WithStore(*state, [&](store::Store& store) { return AcceptStorage(state->accepted, store, std::cout); });
    };
  });

  auto* list =
      repository->add_subcommand("list", "Id, host, state and name of each; --json: with the folders of its disks");
  add_data(list);
  list->callback([&invocation, &global, state] {
    invocation.run = [&global, state] {
      return WithStore(*state, [&](store::Store& store) {
        return ListRepositories(store, global.json ? RepositoryForm::kJson : RepositoryForm::kLines, std::cout);
      });
    };
  });
}

}  // namespace vexa::cli
