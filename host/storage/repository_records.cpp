#include "host/storage/repository_records.h"

#include <map>
#include <optional>
#include <set>
#include <string_view>
#include <utility>

#include "host/base/json_parse.h"
#include "host/base/sanitize_for_log.h"
#include "host/base/uuid.h"
#include "host/disks/file_referrers.h"
#include "host/records/host_liveness.h"
#include "host/records/keys.h"
#include "host/records/named_record.h"
#include "host/records/run_record.h"
#include "host/storage/storage_record.h"
#include "host/store/key.h"
#include "json/readers.h"
#include "webapi/platform/ccc.h"

namespace vexa::storage {
namespace {

using records::kRecordExists;
using records::kRecordFailed;
using records::NamedRecord;
using VexaCCC::DB::DashCate;

constexpr std::size_t kMaxDisplayedName = 128;

Refusal NoSuchRepository(const std::string& id) {
  return {host_error::kNotFoundOrUnreadable, "There is no repository '" + SanitizeForLog(id, kMaxDisplayedName) + "'"};
}

// Why the repository cannot be added while `other` exists; not set when it can.
std::optional<Refusal> ConflictWith(const NamedRecord& other, const NewRepository& repository, const std::string& id) {
  if (other.id == id) return Refusal{kRecordExists, "There is a repository '" + id + "' already"};
  if (other.name != repository.name) return std::nullopt;
  return Refusal{kRecordExists, "The repository '" + SanitizeForLog(other.id, kMaxDisplayedName) + "' has the name '" +
                                    repository.name + "'"};
}

Refusal NoSuchHost(const std::string& id) {
  return {host_error::kNotFoundOrUnreadable,
          "There is no host '" + id +
              "' in this cluster: give the id of one that 'vexa host list' shows, or start the host first"};
}

// Adds the compare that the host's record exists: if it is removed meanwhile, the commit conflicts. Returns the refusal
// for a host without a record.
Result<std::optional<Refusal>> CompareHost(const store::Snapshot& snapshot, const std::string& host_id,
                                           store::Transaction& transaction) {
  std::string key = records::ObjectKey(DashCate::Host.name(), host_id);
  const auto host = snapshot.Get(key);
  if (!host) return host.error();
  if (!host->has_value()) return std::optional<Refusal>(NoSuchHost(host_id));
  transaction.compares.push_back({std::move(key), (*host)->revision});
  return std::optional<Refusal>();
}

Result<store::Transaction> PlanAddition(const store::Snapshot& snapshot, const NewRepository& repository,
                                        const std::string& id, std::optional<Refusal>& refused) {
  store::Transaction transaction;
  const auto all = records::ReadNamedRecords(snapshot, DashCate::Repository.name());
  if (!all) return all.error();
  for (const NamedRecord& other : *all) {
    refused = ConflictWith(other, repository, id);
    if (refused) return transaction;
  }
  const std::string host_id = NormalizeUuid(repository.host_id);
  Result<std::optional<Refusal>> missing_host = CompareHost(snapshot, host_id, transaction);
  if (!missing_host) return missing_host.error();
  refused = std::move(*missing_host);
  if (refused) return transaction;
  NamedRecord added;
  added.id = id;
  added.name = repository.name;
  added.record[keys::name] = repository.name;
  added.record[keys::host_id] = host_id;
  added.record[keys::state] = VexaCCC::State::Repo::online;
  const Status put = records::AddNamedRecord(snapshot, DashCate::Repository.name(), *all, added, transaction);
  if (!put) return put.error();
  return transaction;
}

// Sets the state, which is the one that the repository's host has found or else that of the record, and the storage.
Status ReadStorageState(const store::Snapshot& snapshot, const NamedRecord& record, ListedRepository& listed) {
  listed.state = json::StringMember(record.record, keys::state);
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

// Finds the guests, disks and unfinished deletions that refer to a repository, which cannot be removed meanwhile.
class RepositoryReferrers {
 public:
  RepositoryReferrers(const store::Snapshot& snapshot, const std::string& id) : snapshot_(snapshot), id_(id) {}

  // Advice for each kind of referrer that Find has found, as sentences to append.
  std::string Remedy() const {
    std::string text;
    if (kinds_.has_guests) text += ". Delete the guests first";
    if (kinds_.has_disks)
      text +=
          ". Remove the disks from their guests first; records of disks without a guest have to "
          "be repaired";
    if (kinds_.has_deletions) text += ". Deletions finish on their own once the hosts that hold the files are back";
    return text;
  }

  // Returns the referrers as parts of a sentence: "the guest 'web'". Errors: those of the store.
  Result<std::vector<std::string>> Find() {
    if (Status found = FindGuests(); !found) return found.error();
    if (Status found = FindDisks(); !found) return found.error();
    // A deletion needs the stored state of the storage: without it, files on storage that is not mounted count
    // as gone.
    for (const char* job : {"deletion", "leftover"}) {
      if (Status found = FindJobs(job); !found) return found.error();
    }
    return std::move(referrers_);
  }

 private:
  // Calls `visit` with the id (encoded as in keys) and the value of each object of the category that refers to the
  // repository.
  template <class Visit>
  Status ForEachReferring(const DashCate& category, const Visit& visit) {
    const std::string prefix = records::CategoryKey(category.name());
    return snapshot_.Scan(prefix, [&](std::string_view key, const store::ValueView& value) {
      if (key.size() <= prefix.size() || !MayRefer(value.text)) return true;
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
    const Status scanned = ForEachReferring(
        DashCate::Guest, [&](const std::string& segment, const Json::Value&) { segments.insert(segment); });
    if (!scanned) return scanned;
    for (const std::string& segment : segments) {
      std::string id = store::DecodeSegment(segment).value_or(segment);
      const auto guest = records::ReadNamedRecord(snapshot_, DashCate::Guest.name(), id);
      if (!guest) return guest.error();
      const std::string displayed = *guest ? records::DisplayName(**guest) : SanitizeForLog(id, kMaxDisplayedName);
      referrers_.push_back("the guest '" + displayed + "'");
      kinds_.has_guests = true;
      guests_.insert(std::move(id));
    }
    return {};
  }

  // Without the disks of the guests that were found: those are deleted with their guests.
  Status FindDisks() {
    std::map<std::string, std::string> guest_ids;  // by the disk's id, encoded as in keys
    const Status scanned =
        ForEachReferring(DashCate::vDisk, [&](const std::string& segment, const Json::Value& record) {
          const std::string guest_id = json::StringMember(record, keys::guest_id);
          if (!guests_.contains(guest_id)) guest_ids.emplace(segment, guest_id);
        });
    if (!scanned) return scanned;
    for (const auto& [segment, guest_id] : guest_ids) {
      const std::string id = store::DecodeSegment(segment).value_or(segment);
      std::string owner = "without a guest";
      if (!guest_id.empty()) {
        const auto guest = records::ReadNamedRecord(snapshot_, DashCate::Guest.name(), guest_id);
        if (!guest) return guest.error();
        if (*guest) owner = "of the guest '" + records::DisplayName(**guest) + "'";
      }
      referrers_.push_back("the disk '" + SanitizeForLog(id, kMaxDisplayedName) + "' " + owner);
    }
    kinds_.has_disks = !guest_ids.empty();
    return {};
  }

  // `job` is the first segment of keys "/deletion/<guest id>" or "/leftover/<host id>/<guest id>".
  Status FindJobs(const char* job) {
    const std::string prefix = store::MakeKey({job});
    return snapshot_.Scan(prefix, [&](std::string_view key, const store::ValueView& value) {
      if (!MayRefer(value.text)) return true;
      const Result<Json::Value> parsed = ParseJson(value.text);
      if (!parsed || json::StringMember(*parsed, keys::repository_id) != id_) return true;
      const std::string segment(key.substr(key.rfind('/') + 1));
      const std::string guest_id = store::DecodeSegment(segment).value_or(segment);
      if (guests_.insert(guest_id).second) {
        referrers_.push_back("the unfinished deletion of the guest '" + SanitizeForLog(guest_id, kMaxDisplayedName) +
                             "'");
        kinds_.has_deletions = true;
      }
      return true;
    });
  }

  // Whether `text` must be parsed: it contains the id, or escapes that could hide it.
  bool MayRefer(std::string_view text) const {
    return text.find(id_) != std::string_view::npos || text.find('\\') != std::string_view::npos;
  }

  const store::Snapshot& snapshot_;
  const std::string& id_;
  struct Kinds {
    bool has_guests = false;
    bool has_disks = false;
    bool has_deletions = false;
  };
  Kinds kinds_;
  std::set<std::string> guests_;  // ids of those in `referrers_`
  std::vector<std::string> referrers_;
};

Result<store::Transaction> PlanRemoval(const store::Snapshot& snapshot, const std::string& id, std::string& name,
                                       std::optional<Refusal>& refused) {
  store::Transaction transaction;
  name.clear();
  const auto repository = records::ReadNamedRecord(snapshot, DashCate::Repository.name(), id);
  if (!repository) return repository.error();
  if (!*repository) {
    refused = NoSuchRepository(id);
    return transaction;
  }
  name = records::DisplayName(**repository);
  RepositoryReferrers search(snapshot, id);
  const auto referrers = search.Find();
  if (!referrers) return referrers.error();
  if (!referrers->empty()) {
    refused = Refusal{records::kRecordInUse, "The repository '" + name + "' is used by " +
                                                 records::FormatReferrers(*referrers) + search.Remedy()};
    return transaction;
  }
  // A guest that is imported, or a disk that is made, meanwhile makes this commit a conflict.
  if (Status compared = disks::CompareFileReferencesRevision(snapshot, transaction); !compared) return compared.error();
  const Status removed = records::RemoveNamedRecord(snapshot, DashCate::Repository.name(), **repository, transaction);
  if (!removed) return removed.error();
  // The repository's host may write these until the record is gone.
  transaction.operations.push_back({StorageKey(id), std::nullopt});
  transaction.operations.push_back({SpaceKey(id), std::nullopt});
  transaction.operations.push_back({RepositoryStateKey(id), std::nullopt});
  return transaction;
}

}  // namespace

Status CheckRepository(const NewRepository& repository) {
  if (!records::IsRecordName(repository.name)) {
    return Error(ErrorCode::kInvalid, "A repository's name is 1 to 128 bytes of UTF-8 without control characters");
  }
  if (!repository.id.empty() && NormalizeUuid(repository.id).empty()) {
    return Error(ErrorCode::kInvalid, "'" + SanitizeForLog(repository.id, kMaxDisplayedName) + "' is not a UUID");
  }
  if (!repository.host_id.empty() && NormalizeUuid(repository.host_id).empty()) {
    return Error(ErrorCode::kInvalid,
                 "'" + SanitizeForLog(repository.host_id, kMaxDisplayedName) + "' is not a host's id: give a UUID");
  }
  return {};
}

Result<void, Refusal> AddRepository(store::Store& store, const NewRepository& repository, std::string& id) {
  id = NormalizeUuid(repository.id);
  if (id.empty()) {
    Result<std::string> random = RandomUuid();
    if (!random) return Refusal{kRecordFailed, random.error().ToString()};
    id = std::move(*random);
  }
  return records::CommitRecord(store, [&](const records::Reader& reader, std::optional<Refusal>& refused) {
    return PlanAddition(reader, repository, id, refused);
  });
}

Result<std::vector<ListedRepository>> ListRepositories(const store::Store& store) {
  const Result<records::Reader> reader = records::Reader::Open(store);
  if (!reader) return reader.error();
  const auto records = records::ReadNamedRecords(*reader, DashCate::Repository.name());
  if (!records) return records.error();
  std::vector<ListedRepository> repositories;
  for (const NamedRecord& record : *records) {
    ListedRepository listed{record.id, record.name, json::StringMember(record.record, keys::host_id), "", {}, {}};
    if (Status put = ReadStorageState(*reader, record, listed); !put) return put.error();
    auto space = ReadSpace(*reader, record.id, listed.host_id);
    if (!space) return space.error();
    listed.space = *space;
    const auto state = records::RepositoryStateIfHostGone(*reader, record.record);
    if (!state) return state.error();
    if (*state) listed.state = **state;
    repositories.push_back(std::move(listed));
  }
  return repositories;
}

Result<void, Refusal> RemoveRepository(store::Store& store, const std::string& id, std::string& name) {
  return records::CommitRecord(store, [&](const records::Reader& reader, std::optional<Refusal>& refused) {
    return PlanRemoval(reader, id, name, refused);
  });
}

Result<void, Refusal> AcceptStorage(store::Store& store, const std::string& id, std::string& name) {
  name.clear();
  {
    const auto snapshot = store.Read();
    if (!snapshot) return Refusal{kRecordFailed, snapshot.error().ToString()};
    const auto repository = records::ReadNamedRecord(**snapshot, DashCate::Repository.name(), id);
    if (!repository) return Refusal{kRecordFailed, repository.error().ToString()};
    if (!*repository) return NoSuchRepository(id);
    name = records::DisplayName(**repository);
  }
  const Status forgotten = ForgetStorage(store, id);
  if (!forgotten) return Refusal{kRecordFailed, forgotten.error().ToString()};
  return {};
}

}  // namespace vexa::storage
