#include "host/storage/storage_record.h"

#include <utility>

#include "host/base/json_parse.h"
#include "host/records/keys.h"
#include "host/records/object_edit.h"
#include "host/records/repository_host.h"
#include "host/records/run_record.h"
#include "host/storage/storage_condition.h"
#include "json/readers.h"
#include "webapi/platform/ccc.h"

namespace vexa::storage {
namespace {

using VexaCCC::DB::DashCate;

constexpr char kStorage[] = "storage";
constexpr char kFolders[] = "folders";
constexpr char kNotMounted[] = "not_mounted";
constexpr char kReason[] = "reason";
constexpr char kSince[] = "since";
constexpr char kTrouble[] = "trouble";
constexpr char kWritten[] = "written";
constexpr char kStateBefore[] = "state_before";

std::string RepositoryKey(const std::string& repository_id, std::string_view name) {
  return records::MemberKey(DashCate::Repository.name(), repository_id, name);
}

Storage FromRecord(const records::StoredObject& stored) {
  Storage storage;
  storage.revision = stored.revision;
  storage.host_id = json::StringMember(stored.record, keys::host_id);
  storage.folders = FolderChainFromJson(json::Member(stored.record, kFolders));
  // A record without "trouble" was written before states had kinds: the storage was not mounted.
  const std::string state = json::StringMember(stored.record, kTrouble);
  if (state.empty() && !json::FindMember(stored.record, kNotMounted)) return storage;
  StorageProblem& problem = storage.problem.emplace();
  if (!state.empty()) problem.state = state;
  for (const Json::Value& folder : json::Elements(json::Member(stored.record, kNotMounted))) {
    if (folder.isString()) problem.folders.push_back(json::String(folder));
  }
  problem.reason = json::StringMember(stored.record, kReason);
  problem.since = records::TimeFromJson(json::Member(stored.record, kSince));
  const std::string written = json::StringMember(stored.record, kWritten);
  if (!written.empty()) storage.written = written;
  if (state.empty()) storage.written = problem.state;
  const Json::Value& before = json::Member(stored.record, kStateBefore);
  if (before.isString()) storage.state_before = json::String(before);
  return storage;
}

Json::Value ToRecord(const Storage& storage) {
  Json::Value record = StorageJson(storage);
  record[keys::host_id] = storage.host_id;
  if (storage.written) record[kWritten] = *storage.written;
  if (storage.written && storage.state_before) record[kStateBefore] = *storage.state_before;
  return record;
}

struct StoredValue {
  store::Revision revision = 0;
  std::optional<std::string> text;
};
Result<StoredValue> ReadStoredValue(const store::Snapshot& snapshot, const std::string& key) {
  const auto value = snapshot.Get(key);
  if (!value) return value.error();
  if (!value->has_value()) return StoredValue();
  return StoredValue{(*value)->revision, std::string((*value)->text)};
}

// The value of the state's key as if no state had been written there for a problem.
std::optional<std::string> ValueWithoutProblem(const Storage& storage, const StoredValue& state) {
  const bool is_ours = storage.written && state.text == json::ToText(*storage.written);
  return is_ours ? storage.state_before : state.text;
}

void PlanState(const std::string& repository_id, const StoredValue& now, const std::optional<std::string>& text,
               store::Transaction& transaction) {
  const std::string key = RepositoryStateKey(repository_id);
  transaction.compares.push_back({key, now.revision});
  if (now.text != text) transaction.operations.push_back({key, text});
}

// The state in a value of the state's key; without a value, the one in the repository's record.
Result<std::string> StateWithoutProblem(const store::Snapshot& snapshot, const std::string& repository_id,
                                        const std::optional<std::string>& text) {
  if (text) {
    const Result<Json::Value> parsed = ParseJson(*text);
    return parsed && parsed->isString() ? json::String(*parsed) : std::string();
  }
  const auto record = records::LoadObject(snapshot, RepositoryKey(repository_id, keys::object));
  if (!record && record.error().code() != ErrorCode::kCorrupt) return record.error();
  return record ? json::StringMember(record->record, keys::state) : std::string();
}

// Whether the problem's state replaces the state without it: always when the storage cannot be used at all, otherwise
// when it is worse.
bool OverridesState(const StorageProblem& problem, const std::string& base_state) {
  const bool is_lost =
      problem.state == VexaCCC::State::Repo::unavailable || problem.state == VexaCCC::State::Repo::crashed;
  return is_lost || RepositoryRank(problem.state) > RepositoryRank(base_state);
}

// The record as this host uses it: without the folders of another host.
Storage WithoutForeignFolders(const Storage& before, const std::string& host_id) {
  Storage own = before;
  own.host_id = host_id;
  if (before.host_id != host_id) own.folders.clear();
  return own;
}

// `base_state` is the repository's state without a problem, read from the value `base_text` of the state's key.
Storage Apply(const Storage& before, const std::string& host_id, const StorageUpdate& update,
              const std::string& base_state, const std::optional<std::string>& base_text) {
  Storage after = WithoutForeignFolders(before, host_id);
  std::erase_if(after.folders, [&](const auto& known) { return !update.used.contains(known.first); });
  after.folders.insert(update.learned.begin(), update.learned.end());
  after.problem = update.problem;
  after.written.reset();
  after.state_before.reset();
  if (after.problem && OverridesState(*after.problem, base_state)) {
    after.written = after.problem->state;
    after.state_before = base_text;
  }
  const bool continues = before.problem && after.problem && before.problem->state == after.problem->state;
  if (continues) after.problem->since = before.problem->since;
  return after;
}

Result<store::Transaction> PlanUpdate(const store::Snapshot& snapshot, const std::string& repository_id,
                                      const std::string& host_id, const StorageUpdate& update, StorageChange& change) {
  Result<Storage> before = ReadStorage(snapshot, repository_id);
  if (!before) return before.error();
  change = {*before, *before, ""};
  store::Transaction transaction;
  Json::Value named(Json::objectValue);
  named[keys::repository_id] = repository_id;
  const Result<std::string> host = records::RepositoryHost(snapshot, named);
  if (!host) return host.error();
  if (*host != host_id || before->revision != update.based_on) return transaction;
  const Result<StoredValue> state = ReadStoredValue(snapshot, RepositoryStateKey(repository_id));
  if (!state) return state.error();
  const std::optional<std::string> base_text = ValueWithoutProblem(*before, *state);
  const Result<std::string> base_state = StateWithoutProblem(snapshot, repository_id, base_text);
  if (!base_state) return base_state.error();
  const Storage after = Apply(*before, host_id, update, *base_state, base_text);
  change.state = after.written.value_or(*base_state);
  const std::optional<std::string> text = after.written ? json::ToText(*after.written) : base_text;
  const Json::Value record = ToRecord(after);
  const bool is_new = before->revision == 0 && (!after.folders.empty() || after.problem);
  const bool is_changed = before->revision != 0 && record != ToRecord(*before);
  if (!is_new && !is_changed && state->text == text) return transaction;
  change.after = after;
  for (const char* name : {keys::object, keys::host_id}) {
    const Result<StoredValue> owner = ReadStoredValue(snapshot, RepositoryKey(repository_id, name));
    if (!owner) return owner.error();
    transaction.compares.push_back({RepositoryKey(repository_id, name), owner->revision});
  }
  transaction.compares.push_back({StorageKey(repository_id), before->revision});
  transaction.operations.push_back({StorageKey(repository_id), json::ToText(record)});
  PlanState(repository_id, *state, text, transaction);
  return transaction;
}

}  // namespace

std::string StorageKey(const std::string& repository_id) { return RepositoryKey(repository_id, kStorage); }

std::string RepositoryStateKey(const std::string& repository_id) { return RepositoryKey(repository_id, keys::state); }

Json::Value StorageJson(const Storage& storage) {
  Json::Value record(Json::objectValue);
  record[kFolders] = FolderChainJson(storage.folders);
  if (!storage.problem) return record;
  record[kTrouble] = storage.problem->state;
  if (storage.problem->state == VexaCCC::State::Repo::unavailable) {
    record[kNotMounted] = Json::Value(Json::arrayValue);
    for (const std::string& folder : storage.problem->folders) record[kNotMounted].append(folder);
  }
  record[kReason] = storage.problem->reason;
  const auto since = storage.problem->since.time_since_epoch();
  record[kSince] = static_cast<Json::Int64>(std::chrono::duration_cast<std::chrono::seconds>(since).count());
  return record;
}

Result<Storage> ReadStorage(const store::Snapshot& snapshot, const std::string& repository_id) {
  const Result<records::StoredObject> stored = records::LoadObject(snapshot, StorageKey(repository_id));
  if (!stored) return stored.error();
  return FromRecord(*stored);
}

Result<FolderChain> KnownFolders(const store::Store& store, const std::string& repository_id,
                                 const std::string& host_id) {
  const auto snapshot = store.Read();
  if (!snapshot) return snapshot.error();
  const Result<Storage> storage = ReadStorage(**snapshot, repository_id);
  if (!storage) return storage.error();
  return WithoutForeignFolders(*storage, host_id).folders;
}

Result<StorageChange> UpdateStorage(store::Store& store, const std::string& repository_id, const std::string& host_id,
                                    const StorageUpdate& update) {
  StorageChange change;
  const Status committed = records::CommitWithRetry(
      store, [&](const records::Reader& reader) { return PlanUpdate(reader, repository_id, host_id, update, change); });
  if (!committed) return committed.error();
  return change;
}

Status ForgetStorage(store::Store& store, const std::string& repository_id) {
  return records::CommitWithRetry(store, [&](const records::Reader& reader) -> Result<store::Transaction> {
    const Result<StoredValue> stored = ReadStoredValue(reader, StorageKey(repository_id));
    if (!stored) return stored.error();
    store::Transaction transaction;
    if (!stored->text) return transaction;
    const Result<StoredValue> state = ReadStoredValue(reader, RepositoryStateKey(repository_id));
    if (!state) return state.error();
    const Result<Storage> storage = ReadStorage(reader, repository_id);
    if (!storage && storage.error().code() != ErrorCode::kCorrupt) return storage.error();
    transaction.compares.push_back({StorageKey(repository_id), stored->revision});
    transaction.operations.push_back({StorageKey(repository_id), std::nullopt});
    if (storage) PlanState(repository_id, *state, ValueWithoutProblem(*storage, *state), transaction);
    return transaction;
  });
}

}  // namespace vexa::storage
