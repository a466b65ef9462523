#include "host/storage/repository_records.h"

#include <optional>
#include <set>
#include <string_view>
#include <utility>

#include "host/base/json_parse.h"
#include "host/base/log_text.h"
#include "host/base/uuid.h"
#include "host/disks/disk_users.h"
#include "host/records/host_life.h"
#include "host/records/keys.h"
#include "host/records/named_record.h"
#include "host/records/run_record.h"
#include "host/storage/storage_record.h"
#include "host/store/key.h"
#include "json/readers.h"
#include "webapi/platform/ccc.h"

namespace vexa::guests {
namespace {

namespace json = VexaVirtualization::json;
namespace keys = VexaCCC::DB::_k;
using cluster::kRecordExists;
using cluster::kRecordFailed;
using cluster::NamedRecord;
using VexaCCC::DB::DashCate;

constexpr std::size_t kShownName = 128;

Refusal NoSuchRepository(const std::string& id) {
  return {kUnreadable, "There is no repository '" + cluster::LogText(id, kShownName) + "'"};
}

// Why the repository cannot be added beside `other`.
Refused RefuseBeside(const NamedRecord& other, const NewRepository& repository, const std::string& id) {
  if (other.id == id) return Refusal{kRecordExists, "There is a repository '" + id + "' already"};
  if (other.name != repository.name) return {};
  return Refusal{kRecordExists, "The repository '" + cluster::LogText(other.id, kShownName) + "' has the name '" +
                                    repository.name + "'"};
}

Refusal NoSuchHost(const std::string& id) {
  return {kUnreadable,
          "There is no host '" + id +
              "' in this cluster: give the id of one that 'vexa host list' shows, or start the host first"};
}

// Adds that the host is there: one that is removed meanwhile makes the commit a conflict. Refused when it is not.
Result<Refused> CompareHost(const store::Snapshot& snapshot, const std::string& host_id,
                            store::Transaction& transaction) {
  std::string key = cluster::ObjectKey(DashCate::Host.name(), host_id);
  const auto host = snapshot.Get(key);
  if (!host) return host.error();
  if (!host->has_value()) return Refused(NoSuchHost(host_id));
  transaction.compares.push_back({std::move(key), (*host)->revision});
  return Refused();
}

Result<store::Transaction> PlanAddition(const store::Snapshot& snapshot, const NewRepository& repository,
                                        const std::string& id, Refused& refused) {
  store::Transaction transaction;
  const auto all = cluster::ReadNamedRecords(snapshot, DashCate::Repository.name());
  if (!all) return all.error();
  for (const NamedRecord& other : *all) {
    refused = RefuseBeside(other, repository, id);
    if (refused) return transaction;
  }
  const std::string host_id = NormalizeUuid(repository.host_id);
  Result<Refused> without_host = CompareHost(snapshot, host_id, transaction);
  if (!without_host) return without_host.error();
  refused = std::move(*without_host);
  if (refused) return transaction;
  NamedRecord added;
  added.id = id;
  added.name = repository.name;
  added.record[keys::name] = repository.name;
  added.record[keys::host_id] = host_id;
  added.record[keys::state] = VexaCCC::State::Repo::online;
  const Status put = cluster::AddNamedRecord(snapshot, DashCate::Repository.name(), *all, added, transaction);
  if (!put) return put.error();
  return transaction;
}

// The state that the repository's host has found, else the record's; and what is known of the storage.
Status PutLive(const store::Snapshot& snapshot, const NamedRecord& record, ListedRepository& listed) {
  listed.state = json::TextMember(record.record, keys::state);
  const auto state = snapshot.Get(RepositoryStateKey(record.id));
  if (!state) return state.error();
  if (state->has_value()) {
    const Result<Json::Value> text = ParseJson((*state)->text);
    if (text && text->isString()) listed.state = json::String(*text);
  }
  const Result<Storage> storage = ReadStorage(snapshot, record.id);
  if (!storage) {
    listed.storage["reason"] = storage.error().ToString();
  } else if (storage->revision != 0) {
    listed.storage = StorageJson(*storage);
  }
  return {};
}

// Finds what keeps a repository.
class RepositoryUsers {
 public:
  RepositoryUsers(const store::Snapshot& snapshot, const std::string& id) : snapshot_(snapshot), id_(id) {}

  // What they are called, as parts of a sentence. Errors: what the store says.
  Result<std::vector<std::string>> Find() {
    if (Status found = FindGuests(); !found) return found.error();
    if (Status found = FindDisks(); !found) return found.error();
    // Removing files needs what is known of the storage: without it, files on storage that is not mounted count as
    // gone.
    for (const char* job : {"deletion", "leftover"}) {
      if (Status found = FindJobs(job); !found) return found.error();
    }
    return std::move(users_);
  }

 private:
  // Calls `visit` with the id of each object of the category that names the repository, as it is in keys.
  template <class Visit>
  Status EachNaming(const DashCate& category, const Visit& visit) {
    const std::string prefix = cluster::CategoryKey(category.name());
    return snapshot_.Scan(prefix, [&](std::string_view key, const store::ValueView& value) {
      if (key.size() <= prefix.size() || !MayName(value.text)) return true;
      const std::string_view rest = key.substr(prefix.size() + 1);
      const std::size_t slash = rest.find('/');
      const std::string_view name = slash == std::string_view::npos ? std::string_view() : rest.substr(slash + 1);
      if (name != keys::object && name != keys::repository_id) return true;
      const Result<Json::Value> parsed = ParseJson(value.text);
      if (!parsed) return true;
      const Json::Value& named = name == keys::object ? json::Member(*parsed, keys::repository_id) : *parsed;
      if (named.isString() && json::String(named) == id_) visit(std::string(rest.substr(0, slash)), *parsed);
      return true;
    });
  }

  Status FindGuests() {
    std::set<std::string> segments;
    const Status scanned =
        EachNaming(DashCate::Guest, [&](const std::string& segment, const Json::Value&) { segments.insert(segment); });
    if (!scanned) return scanned;
    for (const std::string& segment : segments) {
      std::string id = store::DecodeSegment(segment).value_or(segment);
      const auto guest = cluster::ReadNamedRecord(snapshot_, DashCate::Guest.name(), id);
      if (!guest) return guest.error();
      const std::string shown = *guest ? cluster::ShownName(**guest) : cluster::LogText(id, kShownName);
      users_.push_back("the guest '" + shown + "'");
      guests_.insert(std::move(id));
    }
    return {};
  }

  // Those of the guests that were found go with their guests.
  Status FindDisks() {
    std::set<std::string> segments;
    const Status scanned = EachNaming(DashCate::vDisk, [&](const std::string& segment, const Json::Value& record) {
      if (!guests_.contains(json::TextMember(record, keys::guest_id))) segments.insert(segment);
    });
    if (!scanned) return scanned;
    for (const std::string& segment : segments) {
      const std::string id = store::DecodeSegment(segment).value_or(segment);
      users_.push_back("the disk '" + cluster::LogText(id, kShownName) + "'");
    }
    return {};
  }

  // "/deletion/<guest id>", "/leftover/<host id>/<guest id>".
  Status FindJobs(const char* job) {
    const std::string prefix = store::MakeKey({job});
    return snapshot_.Scan(prefix, [&](std::string_view key, const store::ValueView& value) {
      if (!MayName(value.text)) return true;
      const Result<Json::Value> parsed = ParseJson(value.text);
      if (!parsed || json::TextMember(*parsed, keys::repository_id) != id_) return true;
      const std::string segment(key.substr(key.rfind('/') + 1));
      const std::string guest_id = store::DecodeSegment(segment).value_or(segment);
      if (guests_.insert(guest_id).second) {
        users_.push_back("the unfinished deletion of the guest '" + cluster::LogText(guest_id, kShownName) + "'");
      }
      return true;
    });
  }

  // Decided without parsing. What is behind an escape may be anything.
  bool MayName(std::string_view text) const {
    return text.find(id_) != std::string_view::npos || text.find('\\') != std::string_view::npos;
  }

  const store::Snapshot& snapshot_;
  const std::string& id_;
  std::set<std::string> guests_;  // ids of those in `users_`
  std::vector<std::string> users_;
};

Result<store::Transaction> PlanRemoval(const store::Snapshot& snapshot, const std::string& id, std::string& name,
                                       Refused& refused) {
  store::Transaction transaction;
  name.clear();
  const auto repository = cluster::ReadNamedRecord(snapshot, DashCate::Repository.name(), id);
  if (!repository) return repository.error();
  if (!*repository) {
    refused = NoSuchRepository(id);
    return transaction;
  }
  name = cluster::ShownName(**repository);
  const auto users = RepositoryUsers(snapshot, id).Find();
  if (!users) return users.error();
  if (!users->empty()) {
    refused = Refusal{cluster::kRecordInUse, "The repository '" + name + "' is used by " +
                                                 cluster::ListOfUsers(*users) + ". Delete them first"};
    return transaction;
  }
  // A guest that is imported, or a disk that is made, meanwhile makes this commit a conflict.
  const Result<store::Revision> files = FilesRevision(snapshot);
  if (!files) return files.error();
  transaction.compares.push_back({FilesKey(), *files});
  const Status removed = cluster::RemoveNamedRecord(snapshot, DashCate::Repository.name(), **repository, transaction);
  if (!removed) return removed.error();
  // The repository's host may write these until the record is gone.
  transaction.operations.push_back({StorageKey(id), std::nullopt});
  transaction.operations.push_back({RepositoryStateKey(id), std::nullopt});
  return transaction;
}

}  // namespace

Status CheckRepository(const NewRepository& repository) {
  if (!cluster::IsRecordName(repository.name)) {
    return Error(ErrorCode::kInvalid, "A repository's name is 1 to 128 bytes of UTF-8 without control characters");
  }
  if (!repository.id.empty() && NormalizeUuid(repository.id).empty()) {
    return Error(ErrorCode::kInvalid, "'" + cluster::LogText(repository.id, kShownName) + "' is not a UUID");
  }
  if (!repository.host_id.empty() && NormalizeUuid(repository.host_id).empty()) {
    return Error(ErrorCode::kInvalid,
                 "'" + cluster::LogText(repository.host_id, kShownName) + "' is not a host's id: give a UUID");
  }
  return {};
}

Refused AddRepository(store::Store& store, const NewRepository& repository, std::string& id) {
  id = NormalizeUuid(repository.id);
  if (id.empty()) {
    Result<std::string> made = RandomUuid();
    if (!made) return Refusal{kRecordFailed, made.error().ToString()};
    id = std::move(*made);
  }
  return cluster::CommitRecord(store, [&](const store::Snapshot& snapshot, Refused& refused) {
    return PlanAddition(snapshot, repository, id, refused);
  });
}

Result<std::vector<ListedRepository>> ListRepositories(const store::Store& store) {
  std::vector<ListedRepository> repositories;
  std::vector<NamedRecord> records;
  {
    const auto snapshot = store.Read();
    if (!snapshot) return snapshot.error();
    auto all = cluster::ReadNamedRecords(**snapshot, DashCate::Repository.name());
    if (!all) return all.error();
    records = std::move(*all);
    for (const NamedRecord& record : records) {
      ListedRepository listed{record.id, record.name, json::TextMember(record.record, keys::host_id), "", {}};
      if (Status put = PutLive(**snapshot, record, listed); !put) return put.error();
      repositories.push_back(std::move(listed));
    }
  }
  for (std::size_t i = 0; i < records.size(); ++i) {
    const auto state = cluster::RepositoryStateNow(records[i].record);
    if (!state) return state.error();
    if (*state) repositories[i].state = **state;
  }
  return repositories;
}

Refused RemoveRepository(store::Store& store, const std::string& id, std::string& name) {
  return cluster::CommitRecord(store, [&](const store::Snapshot& snapshot, Refused& refused) {
    return PlanRemoval(snapshot, id, name, refused);
  });
}

Refused AcceptStorage(store::Store& store, const std::string& id, std::string& name) {
  cluster::RequestScope::ReleaseSnapshot();
  name.clear();
  {
    const auto snapshot = store.Read();
    if (!snapshot) return Refusal{kRecordFailed, snapshot.error().ToString()};
    const auto repository = cluster::ReadNamedRecord(**snapshot, DashCate::Repository.name(), id);
    if (!repository) return Refusal{kRecordFailed, repository.error().ToString()};
    if (!*repository) return NoSuchRepository(id);
    name = cluster::ShownName(**repository);
  }
  const Status forgotten = ForgetStorage(store, id);
  if (!forgotten) return Refusal{kRecordFailed, forgotten.error().ToString()};
  return {};
}

}  // namespace vexa::guests
