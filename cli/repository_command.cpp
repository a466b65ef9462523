#include "cli/repository_command.h"

#include <iostream>

#include "cli/api_paths.h"
#include "cli/listing.h"
#include "cli/printable.h"
#include "cli/reply.h"
#include "host/base/json_parse.h"
#include "host/storage/repository_records.h"

namespace vexa::cli {
namespace {

constexpr const char* kAddRepository = "/webapi/VEXA.Virtualization.Repository/add";
constexpr const char* kRemoveRepository = "/webapi/VEXA.Virtualization.Repository/remove";
constexpr const char* kAcceptRepository = "/webapi/VEXA.Virtualization.Repository/accept";

// The data of "list", checked; failures are printed.
CallOutcome ListRepositories(HttpClient& client) {
  CallOutcome outcome = CallApi(client, kRepositoryList, "{}");
  if (outcome.exit_code == ExitCode::kOk && !Member(outcome.data, "repositories").isArray()) {
    outcome.exit_code = Report(NotUnderstood("repositories"));
  }
  return outcome;
}

// Calls a method for the repository called `word`, whose id is then in `id`; failures are printed.
ExitCode CallFor(const GlobalOptions& global, const std::string& word, const char* method, std::string& id) {
  if (word.empty() || !IsValidUtf8(word)) return Report(NotText("repository's id or name"));
  const Result<HttpClientOptions> connect = ConnectOptions(global);
  if (!connect) return Report(connect.error());
  HttpClient client(*connect);
  const CallOutcome listed = ListRepositories(client);
  if (listed.exit_code != ExitCode::kOk) return listed.exit_code;
  const Result<std::string> found = FindByIdOrName(Member(listed.data, "repositories"), kRepositoryNaming, word);
  if (!found) return Report(found.error());
  id = *found;
  return CallApi(client, method, OneParameter(kRepositoryNaming.id, id)).exit_code;
}

}  // namespace

ExitCode RunRepositoryAdd(const GlobalOptions& global, const RepositoryAddOptions& options) {
  const Status checked = guests::CheckRepository({options.name, options.id, options.host_id});
  if (!checked) return Report(checked.error());
  const Result<HttpClientOptions> connect = ConnectOptions(global);
  if (!connect) return Report(connect.error());
  HttpClient client(*connect);
  Json::Value parameters(Json::objectValue);
  parameters["name"] = options.name;
  if (!options.id.empty()) parameters["repository_id"] = options.id;
  if (!options.host_id.empty()) parameters["host_id"] = options.host_id;
  const CallOutcome outcome = CallApi(client, kAddRepository, RenderJson(parameters, JsonLayout::kOneLine));
  if (outcome.exit_code != ExitCode::kOk) return outcome.exit_code;
  if (global.json) return PrintJson(outcome.data);
  const std::string id = Text(Member(outcome.data, kRepositoryNaming.id));
  if (id.empty()) return Report(NotUnderstood("id of the repository"));
  std::cout << Printable(id) << '\n';
  return ExitCode::kOk;
}

ExitCode RunRepositoryList(const GlobalOptions& global) {
  const Result<HttpClientOptions> connect = ConnectOptions(global);
  if (!connect) return Report(connect.error());
  HttpClient client(*connect);
  const CallOutcome outcome = ListRepositories(client);
  if (outcome.exit_code != ExitCode::kOk) return outcome.exit_code;
  const Json::Value& repositories = Member(outcome.data, "repositories");
  if (global.json) return PrintJson(repositories);
  for (const Json::Value& repository : repositories) {
    const auto text = [&](const char* name) { return Printable(Text(Member(repository, name))); };
    std::cout << text(kRepositoryNaming.id) << "  " << text("host_id") << "  " << text("state") << "  "
              << text(kRepositoryNaming.name) << '\n';
  }
  return ExitCode::kOk;
}

ExitCode RunRepositoryRemove(const GlobalOptions& global, const std::string& repository) {
  std::string id;
  const ExitCode removed = CallFor(global, repository, kRemoveRepository, id);
  if (removed != ExitCode::kOk) return removed;
  if (!global.quiet) std::cout << "Removed the repository '" << Printable(repository) << "'. Its files stay.\n";
  return ExitCode::kOk;
}

ExitCode RunRepositoryAccept(const GlobalOptions& global, const std::string& repository) {
  std::string id;
  const ExitCode accepted = CallFor(global, repository, kAcceptRepository, id);
  if (accepted != ExitCode::kOk) return accepted;
  if (!global.quiet) std::cout << Printable(id) << ": its host takes the storage as it is now\n";
  return ExitCode::kOk;
}

}  // namespace vexa::cli
