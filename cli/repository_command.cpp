#include "cli/repository_command.h"

#include <fmt/format.h>

#include <iostream>

#include "cli/objects.h"
#include "cli/printable.h"
#include "cli/reply.h"
#include "host/storage/repository_records.h"

namespace vexa::cli {
namespace {

constexpr const char* kAddRepository = "/webapi/VEXA.Virtualization.Repository/add";
constexpr const char* kRemoveRepository = "/webapi/VEXA.Virtualization.Repository/remove";
constexpr const char* kAcceptRepository = "/webapi/VEXA.Virtualization.Repository/accept";

}  // namespace

ExitCode RunRepositoryAdd(const GlobalOptions& global, const RepositoryAddOptions& options) {
  const Status checked = storage::CheckRepository({options.name, options.id, options.host_id});
  if (!checked) return Report(checked.error());
  Json::Value parameters(Json::objectValue);
  parameters["name"] = options.name;
  if (!options.id.empty()) parameters["repository_id"] = options.id;
  if (!options.host_id.empty()) parameters["host_id"] = options.host_id;
  return AddObject(global, kRepositories, kAddRepository, parameters);
}

ExitCode RunRepositoryList(const GlobalOptions& global) {
  const CallOutcome outcome = ListObjects(global, kRepositories);
  if (outcome.exit_code != ExitCode::kOk) return outcome.exit_code;
  const Json::Value& repositories = Member(outcome.data, "repositories");
  if (global.json) return PrintJson(repositories);
  for (const Json::Value& repository : repositories) {
    const auto text = [&](const char* name) { return Printable(Text(Member(repository, name))); };
    std::cout << fmt::format("{}  {}  {}  {}\n", text(kRepositories.id), text("host_id"), text("state"),
                             text(kRepositories.name));
  }
  return ExitCode::kOk;
}

ExitCode RunRepositoryRemove(const GlobalOptions& global, const std::string& repository) {
  std::string id;
  const ExitCode removed = CallForObject(global, kRepositories, kRemoveRepository, repository, id);
  if (removed != ExitCode::kOk) return removed;
  return PrintConfirmation(global, fmt::format("Removed the repository '{}'. Its files stay.", Printable(repository)));
}

ExitCode RunRepositoryAccept(const GlobalOptions& global, const std::string& repository) {
  std::string id;
  const ExitCode accepted = CallForObject(global, kRepositories, kAcceptRepository, repository, id);
  if (accepted != ExitCode::kOk) return accepted;
  return PrintConfirmation(global, fmt::format("Accepted the current storage of the repository '{}'", Printable(id)));
}

}  // namespace vexa::cli
