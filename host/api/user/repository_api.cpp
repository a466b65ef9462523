#include "host/api/user/repository_api.h"

#include <fmt/format.h>

#include <string>
#include <utility>

#include "host/api/rows.h"
#include "host/api/user/record_calls.h"
#include "host/base/json_parse.h"
#include "host/base/sanitize_for_log.h"
#include "host/base/uuid.h"
#include "host/records/request_scope.h"
#include "host/storage/repository_contents.h"
#include "host/storage/repository_records.h"
#include "host/storage/repository_space.h"
#include "webapi/platform/ccc.h"

namespace vexa::api {
namespace {

Json::Value DescribeSpace(const storage::RepositorySpace& space) {
  Json::Value entry(Json::objectValue);
  entry["total"] = Json::UInt64{space.total};
  entry["used"] = Json::UInt64{space.used};
  entry["free"] = Json::UInt64{space.free};
  entry["soft_percent"] = space.limits.warning_percent;
  entry["hard_percent"] = space.limits.full_percent;
  entry["headroom_gib"] = Json::UInt64{space.limits.headroom_gib};
  return entry;
}

Json::Value Describe(storage::ListedRepository& repository, bool with_storage) {
  Json::Value entry(Json::objectValue);
  entry["repository_id"] = repository.id;
  entry["name"] = repository.name;
  entry["host_id"] = repository.host_id;
  entry["state"] = repository.state;
  if (repository.space) entry["space"] = DescribeSpace(*repository.space);
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

Json::Value DescribeGuest(const storage::ContainedGuest& guest) {
  Json::Value entry(Json::objectValue);
  entry["guest_id"] = guest.id;
  entry["name"] = guest.name;
  Json::Value& disks = entry["vdisks"] = Json::Value(Json::arrayValue);
  for (const storage::ContainedDisk& disk : guest.disks) {
    Json::Value& described = disks.append(Json::Value(Json::objectValue));
    described["vdisk_id"] = disk.id;
    described["path"] = disk.path;
    described["size_mib"] = Json::UInt64{disk.size_mib};
    if (disk.allocated) described["allocated"] = Json::UInt64{*disk.allocated};
  }
  return entry;
}

void Get(store::Store& store, storage::RepositoryReader& reader, const Call& call) {
  const auto id = call.request->GetAndCheckString("repository_id", kRequired, IsId);
  if (id.IsInvalid()) return Fail(call, user_error::kBadParameter);
  auto contents = reader.Read(store, id.Get());
  if (!contents.ok()) return Fail(call, contents.error().code, contents.error().reason);
  Json::Value data = Describe(contents->repository, true);
  Json::Value& guests = data["guests"] = Json::Value(Json::arrayValue);
  for (const storage::ContainedGuest& guest : contents->guests) guests.append(DescribeGuest(guest));
  if (contents->files) {
    Json::Value& files = data["files"] = Json::Value(Json::arrayValue);
    for (const storage::ContainedFile& file : *contents->files) {
      Json::Value& described = files.append(Json::Value(Json::objectValue));
      // A file's name may be of any bytes, and a reply is UTF-8.
      described["path"] = IsValidUtf8(file.path) ? file.path : SanitizePathForLog(file.path);
      described["size"] = Json::UInt64{file.size};
      described["allocated"] = Json::UInt64{file.allocated};
    }
  }
  call.response->SetSuccess(data);
}

// The folder of a new repository of this host. The folders of others are made by their hosts, with the first disk.
Status MakeFolder(const store::Store& store, const RepositoryPlaces& places, const storage::NewRepository& repository) {
  if (places.image_roots.empty() || NormalizeUuid(repository.host_id) != places.host_id) return {};
  const records::RequestPause pause;  // the file system may be slow
  return storage::MakeImageFolder(store, places.host_id, places.image_roots.front(), repository.id, places.access);
}

void Add(store::Store& store, const RepositoryPlaces& places, const Call& call) {
  const auto name = call.request->GetAndCheckString("name", kRequired);
  const auto host_id = call.request->GetAndCheckString("host_id", kOptional, VexaCCC::Utils::IsNotEmpty);
  const auto id = call.request->GetAndCheckString("repository_id", kOptional, VexaCCC::Utils::IsNotEmpty);
  if (name.IsInvalid() || host_id.IsInvalid() || id.IsInvalid()) return Fail(call, user_error::kBadParameter);
  storage::NewRepository repository{name.Get(), id.Get(),
                                    host_id.IsSet() ? host_id.Get() : VexaCCC::DB::DBLocalhostID()};
  const Status checked = storage::CheckRepository(repository);
  if (!checked) return Fail(call, user_error::kBadParameter, checked.error().message());
  std::string new_id;
  auto done = storage::AddRepository(store, repository, new_id);
  repository.id = new_id;
  if (done.ok()) {
    const Status made = MakeFolder(store, places, repository);
    if (!made) {
      std::string ignored;
      (void)storage::RemoveRepository(store, new_id, ignored);
      done = Refusal{user_error::kUnavailable, made.error().ToString()};
    }
  }
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

void Rename(store::Store& store, const Call& call) {
  RenameObject(store, call, {VexaCCC::DB::DashCate::Repository.name(), "repository", "repository_id"});
}

// A percentage, which may be missing. False: the call has been answered.
bool ReadPercent(const Call& call, const char* name, std::optional<unsigned>& percent) {
  const auto given = call.request->GetAndCheckInt(name, kOptional);
  if (given.IsInvalid() || (given.IsSet() && given.Get() < 0)) {
    Fail(call, user_error::kBadParameter);
    return false;
  }
  if (given.IsSet()) percent = static_cast<unsigned>(given.Get());
  return true;
}

void SetLimits(store::Store& store, const Call& call) {
  const auto id = call.request->GetAndCheckString("repository_id", kRequired, IsId);
  if (id.IsInvalid()) return Fail(call, user_error::kBadParameter);
  storage::NewLimits limits;
  if (!ReadPercent(call, "soft_percent", limits.soft_percent)) return;
  if (!ReadPercent(call, "hard_percent", limits.hard_percent)) return;
  std::string name;
  const auto done = storage::SetLimits(store, id.Get(), limits, name);
  const std::string& shown = name.empty() ? id.Get() : name;
  LogOutcome(call, OutcomeOf(done), fmt::format("The limits of the repository [{}] have been set.", shown),
             fmt::format("Failed to set the limits of the repository [{}].", shown));
  if (!done.ok()) return Fail(call, done.error().code, done.error().reason);
  call.response->SetSuccess(Json::Value());
}

void LogAcceptance(const Call& call, Outcome outcome, const std::string& name) {
  LogOutcome(call, outcome, fmt::format("The storage of the repository [{}] has been accepted as it is now.", name),
             fmt::format("Failed to accept the storage of the repository [{}].", name));
}

void Accept(store::Store& store, const Call& call) {
  ChangeRecord(store, call, "repository_id", storage::AcceptStorage, LogAcceptance);
}

}  // namespace

std::vector<ApiRow> RepositoryRows(const std::shared_ptr<store::Store>& store, RepositoryPlaces places) {
  const Parameter repository_id = Text("repository_id", "The repository's id.");
  const auto reader = std::make_shared<storage::RepositoryReader>(places.host_id, places.image_roots);
  return {
      UserRow(
          "VEXA.Virtualization.Repository", "list", LaneKind::kQuick, [store](const Call& call) { List(*store, call); },
          "The repositories of guests' disks: id, name, host, state, and the space and limits that their hosts have "
          "found. Administrators also see the folders and their problems.",
          {}, {user_error::kRecordFailed}),
      AdministratorRow(
          "VEXA.Virtualization.Repository", "add", LaneKind::kLong,
          [store, places = std::move(places)](const Call& call) { Add(*store, places, call); },
          "Add a repository, and get its id. Its folder is made if this host has it.",
          {Text("name", "The repository's name, 1 to 128 bytes; no other repository may have it."),
           OptionalString("host_id", "The id of the host that has its disks (default: the host that is asked)."),
           OptionalString("repository_id", "The repository's id, a UUID (default: a new id).")},
          {user_error::kBadParameter, user_error::kNotFoundOrUnreadable, user_error::kUnavailable,
           user_error::kRecordExists, user_error::kRecordFailed}),
      AdministratorRow(
          "VEXA.Virtualization.Repository", "get", LaneKind::kLong,
          [store, reader](const Call& call) { Get(*store, *reader, call); },
          "One repository as in the list, its guests with their disks, and on its own host also the space that the "
          "disks take and the files in its folders that no record names.",
          {repository_id}, {user_error::kBadParameter, user_error::kNotFoundOrUnreadable, user_error::kRecordFailed}),
      AdministratorRow("VEXA.Virtualization.Repository", "rename", LaneKind::kLong,
                       [store](const Call& call) { Rename(*store, call); },
                       "Give a repository another name. Its folder keeps its name.",
                       {repository_id, Text("name", "The new name, 1 to 128 bytes; no other repository may have it.")},
                       {user_error::kBadParameter, user_error::kNotFoundOrUnreadable, user_error::kRecordExists,
                        user_error::kRecordFailed}),
      AdministratorRow(
          "VEXA.Virtualization.Repository", "limits", LaneKind::kLong,
          [store](const Call& call) { SetLimits(*store, call); },
          "Set from which used percentages on a repository has a warning, and is full. What is left out becomes the "
          "setting of the repository's host.",
          {repository_id,
           Optional("soft_percent", ParameterType::kInteger, "A warning from here on, 0 to 100; 0: never."),
           Optional("hard_percent", ParameterType::kInteger, "Full from here on, 0 to 100; 0: never.")},
          {user_error::kBadParameter, user_error::kNotFoundOrUnreadable, user_error::kRecordFailed}),
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
