#include "host/api/user/repository_api.h"

#include <fmt/format.h>

#include <string>
#include <utility>

#include "host/api/rows.h"
#include "host/api/user/record_calls.h"
#include "host/storage/repository_records.h"
#include "webapi/platform/ccc.h"

namespace vexa::api {
namespace {

Json::Value Describe(storage::ListedRepository& repository, bool with_storage) {
  Json::Value entry(Json::objectValue);
  entry["repository_id"] = repository.id;
  entry["name"] = repository.name;
  entry["host_id"] = repository.host_id;
  entry["state"] = repository.state;
  if (with_storage && !repository.storage.isNull()) entry["storage"] = std::move(repository.storage);
  return entry;
}

void List(const store::Store& store, const Call& call) {
  auto repositories = storage::ListRepositories(store);
  if (!repositories) return RespondListError(call, "repositories", repositories.error());
  Json::Value data(Json::objectValue);
  Json::Value& list = data["repositories"] = Json::Value(Json::arrayValue);
  for (storage::ListedRepository& repository : *repositories) {
    list.append(Describe(repository, call.request->IsAdmin()));
  }
  call.response->SetSuccess(data);
}

void LogAddition(const Call& call, Outcome outcome, const std::string& name) {
  LogOutcome(call, outcome, fmt::format("The repository [{}] has been added.", name),
             fmt::format("Failed to add the repository [{}].", name));
}

void Add(store::Store& store, const Call& call) {
  const auto name = call.request->GetAndCheckString("name", kRequired);
  const auto host_id = call.request->GetAndCheckString("host_id", kOptional, VexaCCC::Utils::IsNotEmpty);
  const auto id = call.request->GetAndCheckString("repository_id", kOptional, VexaCCC::Utils::IsNotEmpty);
  if (name.IsInvalid() || host_id.IsInvalid() || id.IsInvalid()) return Fail(call, user_error::kBadParameter);
  const storage::NewRepository repository{name.Get(), id.Get(),
                                          host_id.IsSet() ? host_id.Get() : VexaCCC::DB::DBLocalhostID()};
  const Status checked = storage::CheckRepository(repository);
  if (!checked) return Fail(call, user_error::kBadParameter, checked.error().message());
  std::string new_id;
  const auto done = storage::AddRepository(store, repository, new_id);
  LogAddition(call, OutcomeOf(done), repository.name);
  RespondToAddition(call, done, "repository_id", new_id);
}

void LogRemoval(const Call& call, Outcome outcome, const std::string& name) {
  LogOutcome(call, outcome, fmt::format("The repository [{}] has been removed.", name),
             fmt::format("Failed to remove the repository [{}].", name));
}

void Remove(store::Store& store, const Call& call) {
  ChangeRecord(store, call, "repository_id", storage::RemoveRepository, LogRemoval);
}

void LogAcceptance(const Call& call, Outcome outcome, const std::string& name) {
  LogOutcome(call, outcome, fmt::format("The storage of the repository [{}] has been accepted as it is now.", name),
             fmt::format("Failed to accept the storage of the repository [{}].", name));
}

void Accept(store::Store& store, const Call& call) {
  ChangeRecord(store, call, "repository_id", storage::AcceptStorage, LogAcceptance);
}

}  // namespace

std::vector<ApiRow> RepositoryRows(const std::shared_ptr<store::Store>& store) {
  const Parameter repository_id = Text("repository_id", "The repository's id.");
  return {
      UserRow("VEXA.Virtualization.Repository", "list", LaneKind::kQuick,
              [store](const Call& call) { List(*store, call); },
              "The repositories of guests' disks: id, name, host and state. Administrators also see the "
              "folders and their problems.",
              {}, {user_error::kRecordFailed}),
      AdministratorRow(
          "VEXA.Virtualization.Repository", "add", LaneKind::kLong, [store](const Call& call) { Add(*store, call); },
          "Add a repository, and get its id.",
          {Text("name", "The repository's name, 1 to 128 bytes; no other repository may have it."),
           OptionalString("host_id", "The id of the host that has its disks (default: the host that is asked)."),
           OptionalString("repository_id", "The repository's id, a UUID (default: a new id).")},
          {user_error::kBadParameter, user_error::kNotFoundOrUnreadable, user_error::kRecordExists,
           user_error::kRecordFailed}),
      AdministratorRow("VEXA.Virtualization.Repository", "remove", LaneKind::kLong,
                       [store](const Call& call) { Remove(*store, call); },
                       "Remove a repository without guests and disks. Its files stay.", {repository_id},
                       {user_error::kBadParameter, user_error::kNotFoundOrUnreadable, user_error::kRecordInUse,
                        user_error::kRecordFailed}),
      AdministratorRow(
          "VEXA.Virtualization.Repository", "accept", LaneKind::kLong,
          [store](const Call& call) { Accept(*store, call); },
          "Accept the storage of a repository as it is now, after it was replaced for good. Mount it first.",
          {repository_id}, {user_error::kBadParameter, user_error::kNotFoundOrUnreadable, user_error::kRecordFailed})};
}

}  // namespace vexa::api
