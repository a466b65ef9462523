#include "host/api/user/repository_api.h"

#include <string>
#include <utility>

#include "host/api/rows.h"
#include "host/api/user/record_calls.h"
#include "host/records/named_record.h"
#include "host/storage/repository_records.h"
#include "webapi/platform/ccc.h"
#include "webapi/platform/ccc_log.h"

namespace vexa::services {
namespace {

using guests::Refused;
using webapi::Call;

// Ids of records may have been given by other programs.
bool IsId(const std::string& text) { return cluster::IsRecordName(text); }

Json::Value Describe(guests::ListedRepository& repository, bool with_storage) {
  Json::Value shown(Json::objectValue);
  shown["repository_id"] = repository.id;
  shown["name"] = repository.name;
  shown["host_id"] = repository.host_id;
  shown["state"] = repository.state;
  if (with_storage && !repository.storage.isNull()) shown["storage"] = std::move(repository.storage);
  return shown;
}

void List(const store::Store& store, const Call& call) {
  auto repositories = guests::ListRepositories(store);
  if (!repositories) return FailToList(call, "repositories", repositories.error());
  Json::Value data(Json::objectValue);
  Json::Value& list = data["repositories"] = Json::Value(Json::arrayValue);
  for (guests::ListedRepository& repository : *repositories) {
    list.append(Describe(repository, call.request->IsAdmin()));
  }
  call.response->SetSuccess(data);
}

void LogAddition(const std::string& user, bool is_done, const std::string& name) {
  using namespace VexaCCC;
  if (is_done) {
    ClusterLogAdd(user, CLOG_PRIORITY_SUCCESS, "The repository [%s] has been added.", name.c_str());
  } else {
    ClusterLogAdd(user, CLOG_PRIORITY_FAILURE, "Failed to add the repository [%s].", name.c_str());
  }
}

void Add(store::Store& store, const Call& call) {
  const auto name = call.request->GetAndCheckString("name", kRequired);
  const auto host_id = call.request->GetAndCheckString("host_id", kOptional, VexaCCC::Utils::IsNotEmpty);
  const auto id = call.request->GetAndCheckString("repository_id", kOptional, VexaCCC::Utils::IsNotEmpty);
  if (name.IsInvalid() || host_id.IsInvalid() || id.IsInvalid()) return Fail(call, webapi::kErrorBadParameter);
  const guests::NewRepository repository{name.Get(), id.Get(),
                                         host_id.IsSet() ? host_id.Get() : VexaCCC::DB::DBLocalhostID()};
  const Status checked = guests::CheckRepository(repository);
  if (!checked) return Fail(call, webapi::kErrorBadParameter, checked.error().message());
  std::string new_id;
  const Refused refused = guests::AddRepository(store, repository, new_id);
  LogAddition(call.request->GetLoginUserName(), !refused, repository.name);
  if (refused) return Fail(call, refused->code, refused->reason);
  Json::Value data(Json::objectValue);
  data["repository_id"] = new_id;
  call.response->SetSuccess(data);
}

void LogRemoval(const std::string& user, bool is_done, const std::string& name) {
  using namespace VexaCCC;
  if (is_done) {
    ClusterLogAdd(user, CLOG_PRIORITY_SUCCESS, "The repository [%s] has been removed.", name.c_str());
  } else {
    ClusterLogAdd(user, CLOG_PRIORITY_FAILURE, "Failed to remove the repository [%s].", name.c_str());
  }
}

void Remove(store::Store& store, const Call& call) {
  const auto id = call.request->GetAndCheckString("repository_id", kRequired, IsId);
  if (id.IsInvalid()) return Fail(call, webapi::kErrorBadParameter);
  std::string name;
  const Refused refused = guests::RemoveRepository(store, id.Get(), name);
  LogRemoval(call.request->GetLoginUserName(), !refused, name.empty() ? id.Get() : name);
  if (refused) return Fail(call, refused->code, refused->reason);
  call.response->SetSuccess(Json::Value());
}

void LogAcceptance(const std::string& user, bool is_done, const std::string& name) {
  using namespace VexaCCC;
  if (is_done) {
    ClusterLogAdd(user, CLOG_PRIORITY_SUCCESS, "The storage of the repository [%s] has been accepted as it is now.",
                  name.c_str());
  } else {
    ClusterLogAdd(user, CLOG_PRIORITY_FAILURE, "Failed to accept the storage of the repository [%s].", name.c_str());
  }
}

void Accept(store::Store& store, const Call& call) {
  const auto id = call.request->GetAndCheckString("repository_id", kRequired, IsId);
  if (id.IsInvalid()) return Fail(call, webapi::kErrorBadParameter);
  std::string name;
  const Refused refused = guests::AcceptStorage(store, id.Get(), name);
  LogAcceptance(call.request->GetLoginUserName(), !refused, name.empty() ? id.Get() : name);
  if (refused) return Fail(call, refused->code, refused->reason);
  call.response->SetSuccess(Json::Value());
}

}  // namespace

std::vector<webapi::ApiRow> RepositoryRows(std::shared_ptr<store::Store> store) {
  using webapi::Access;
  using webapi::LaneKind;
  const webapi::Parameter repository_id = Text("repository_id", "The repository's id.");
  return {{.api = "VEXA.Virtualization.Repository",
           .method = "list",
           .version = 1,
           .access = Access::kUser,
           .lane = LaneKind::kQuick,
           .handler = [store](const Call& call) { List(*store, call); },
           .summary = "The repositories of guests' disks: id, name, host and state. Administrators also see the "
                      "folders, and what is wrong with them.",
           .parameters = {},
           .errors = {cluster::kRecordFailed}},
          {.api = "VEXA.Virtualization.Repository",
           .method = "add",
           .version = 1,
           .access = Access::kAdministrator,
           .lane = LaneKind::kLong,
           .handler = [store](const Call& call) { Add(*store, call); },
           .summary = "Add a repository, and get its id.",
           .parameters = {Text("name", "The repository's name, 1 to 128 bytes; no other repository may have it."),
                          OptionalText(
                              "host_id",
                              "The host that has its disks, the id of a host of the cluster; the host that is asked "
                              "without it."),
                          OptionalText("repository_id", "The repository's id, a UUID; a new one without it.")},
           .errors = {webapi::kErrorBadParameter, kErrorUnreadable, cluster::kRecordExists, cluster::kRecordFailed}},
          {.api = "VEXA.Virtualization.Repository",
           .method = "remove",
           .version = 1,
           .access = Access::kAdministrator,
           .lane = LaneKind::kLong,
           .handler = [store](const Call& call) { Remove(*store, call); },
           .summary = "Remove a repository that no guest and no disk is in. Files stay.",
           .parameters = {repository_id},
           .errors = {webapi::kErrorBadParameter, kErrorUnreadable, cluster::kRecordInUse, cluster::kRecordFailed}},
          {.api = "VEXA.Virtualization.Repository",
           .method = "accept",
           .version = 1,
           .access = Access::kAdministrator,
           .lane = LaneKind::kLong,
           .handler = [store](const Call& call) { Accept(*store, call); },
           .summary = "Take the storage of a repository as it is now, when it was replaced for good. Mount it before.",
           .parameters = {repository_id},
           .errors = {webapi::kErrorBadParameter, kErrorUnreadable, cluster::kRecordFailed}}};
}

}  // namespace vexa::services
