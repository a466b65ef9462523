#include "host/guests/storage_record.h"

#include <utility>

#include "host/base/json_parse.h"
#include "host/cluster/object_edit.h"
#include "host/guests/deletion_plan.h"
#include "host/guests/run_record.h"
#include "host/store/key.h"
#include "webapi/platform/ccc.h"
#include "webapi/utils/json.h"

namespace vexa::guests {
namespace {

namespace json = VexaVirtualization::json;
namespace keys = VexaCCC::DB::_k;
using std::chrono::system_clock;
using VexaCCC::DB::DashCate;

constexpr char kStorage[] = "storage";
constexpr char kFolders[] = "folders";
constexpr char kNotMounted[] = "not_mounted";
constexpr char kReason[] = "reason";
constexpr char kSince[] = "since";
constexpr char kStateBefore[] = "state_before";

std::string RepositoryKey(const std::string& repository_id, std::string_view name) {
  return store::MakeKey({"dash", DashCate::Repository.name(), repository_id, name});
}

std::string TextMember(const Json::Value& record, const char* name) {
  const Json::Value& member = json::Member(record, name);
  return member.isString() ? json::String(member) : std::string();
}

Storage FromRecord(const cluster::StoredObject& stored) {
  Storage storage;
  storage.revision = stored.revision;
  storage.host_id = TextMember(stored.record, keys::host_id);
  storage.folders = TrailFromJson(json::Member(stored.record, kFolders));
  if (!json::FindMember(stored.record, kNotMounted)) return storage;
  StorageTrouble& trouble = storage.trouble.emplace();
  for (const Json::Value& folder : json::Elements(json::Member(stored.record, kNotMounted))) {
    if (folder.isString()) trouble.folders.push_back(json::String(folder));
  }
  trouble.reason = TextMember(stored.record, kReason);
  trouble.since = StoredTime(json::Member(stored.record, kSince));
  const Json::Value& before = json::Member(stored.record, kStateBefore);
  if (before.isString()) storage.state_before = json::String(before);
  return storage;
}

Json::Value ToRecord(const Storage& storage) {
  Json::Value record = StorageJson(storage);
  record[keys::host_id] = storage.host_id;
  if (storage.trouble && storage.state_before) record[kStateBefore] = *storage.state_before;
  return record;
}

std::string UnavailableText() { return json::ToText(VexaCCC::State::Repo::unavailable); }

struct StoredText {
  store::Revision revision = 0;
  std::optional<std::string> text;
};
Result<StoredText> ReadText(const store::Snapshot& snapshot, const std::string& key) {
  const auto value = snapshot.Get(key);
  if (!value) return value.error();
  if (!value->has_value()) return StoredText();
  return StoredText{(*value)->revision, std::string((*value)->text)};
}

// Takes back what was written when the trouble began, unless somebody has written another state since.
void RestoreState(const std::string& repository_id, const Storage& storage, const StoredText& state,
                  store::Transaction& transaction) {
  const std::string key = RepositoryStateKey(repository_id);
  transaction.compares.push_back({key, state.revision});
  if (storage.trouble && state.text == UnavailableText()) transaction.operations.push_back({key, storage.state_before});
}

// What of the storage counts for this host.
Storage OwnPart(const Storage& before, const std::string& host_id) {
  Storage own = before;
  own.host_id = host_id;
  if (before.host_id != host_id) own.folders.clear();
  return own;
}

Storage Apply(const Storage& before, const std::string& host_id, const StorageNews& news, const StoredText& state) {
  Storage after = OwnPart(before, host_id);
  std::erase_if(after.folders, [&](const auto& known) { return !news.used.contains(known.first); });
  after.folders.insert(news.learned.begin(), news.learned.end());
  const bool was_written = before.trouble && state.text == UnavailableText();
  if (!news.trouble) {
    after.state_before.reset();
  } else if (!was_written) {
    after.state_before = state.text;
  }
  after.trouble = news.trouble;
  if (before.trouble && after.trouble) after.trouble->since = before.trouble->since;
  return after;
}

Result<store::Transaction> PlanUpdate(const store::Store& store, const std::string& repository_id,
                                      const std::string& host_id, const StorageNews& news, StorageChange& change) {
  const auto snapshot = store.Read();
  if (!snapshot) return snapshot.error();
  Result<Storage> before = ReadStorage(**snapshot, repository_id);
  if (!before) return before.error();
  change = {*before, *before};
  store::Transaction transaction;
  Json::Value named(Json::objectValue);
  named[keys::repository_id] = repository_id;
  const Result<std::string> host = RepositoryHost(**snapshot, named);
  if (!host) return host.error();
  if (*host != host_id || before->revision != news.seen) return transaction;
  const Result<StoredText> state = ReadText(**snapshot, RepositoryStateKey(repository_id));
  if (!state) return state.error();
  const Storage after = Apply(*before, host_id, news, *state);
  const Json::Value record = ToRecord(after);
  const bool is_new = before->revision == 0 && (!after.folders.empty() || after.trouble);
  const bool is_changed = before->revision != 0 && record != ToRecord(*before);
  const bool has_state = !after.trouble || state->text == UnavailableText();
  if (!is_new && !is_changed && has_state) return transaction;
  change.after = after;
  for (const char* name : {keys::object, keys::host_id}) {
    const Result<StoredText> owner = ReadText(**snapshot, RepositoryKey(repository_id, name));
    if (!owner) return owner.error();
    transaction.compares.push_back({RepositoryKey(repository_id, name), owner->revision});
  }
  transaction.compares.push_back({StorageKey(repository_id), before->revision});
  transaction.operations.push_back({StorageKey(repository_id), json::ToText(record)});
  if (!after.trouble) {
    RestoreState(repository_id, *before, *state, transaction);
  } else if (!has_state) {
    transaction.compares.push_back({RepositoryStateKey(repository_id), state->revision});
    transaction.operations.push_back({RepositoryStateKey(repository_id), UnavailableText()});
  }
  return transaction;
}

}  // namespace

std::string StorageKey(const std::string& repository_id) { return RepositoryKey(repository_id, kStorage); }

std::string RepositoryStateKey(const std::string& repository_id) { return RepositoryKey(repository_id, keys::state); }

Json::Value StorageJson(const Storage& storage) {
  Json::Value record(Json::objectValue);
  record[kFolders] = TrailJson(storage.folders);
  if (!storage.trouble) return record;
  record[kNotMounted] = Json::Value(Json::arrayValue);
  for (const std::string& folder : storage.trouble->folders) record[kNotMounted].append(folder);
  record[kReason] = storage.trouble->reason;
  const auto since = storage.trouble->since.time_since_epoch();
  record[kSince] = static_cast<Json::Int64>(std::chrono::duration_cast<std::chrono::seconds>(since).count());
  return record;
}

Result<Storage> ReadStorage(const store::Snapshot& snapshot, const std::string& repository_id) {
  const Result<cluster::StoredObject> stored = cluster::LoadObject(snapshot, StorageKey(repository_id));
  if (!stored) return stored.error();
  return FromRecord(*stored);
}

Result<Trail> KnownFolders(const store::Store& store, const std::string& repository_id, const std::string& host_id) {
  const auto snapshot = store.Read();
  if (!snapshot) return snapshot.error();
  const Result<Storage> storage = ReadStorage(**snapshot, repository_id);
  if (!storage) return storage.error();
  return OwnPart(*storage, host_id).folders;
}

Result<StorageChange> UpdateStorage(store::Store& store, const std::string& repository_id, const std::string& host_id,
                                    const StorageNews& news) {
  StorageChange change;
  const Status committed =
      cluster::CommitPlanned(store, [&] { return PlanUpdate(store, repository_id, host_id, news, change); });
  if (!committed) return committed.error();
  return change;
}

Status ForgetStorage(store::Store& store, const std::string& repository_id) {
  return cluster::CommitPlanned(store, [&]() -> Result<store::Transaction> {
    const auto snapshot = store.Read();
    if (!snapshot) return snapshot.error();
    const Result<StoredText> stored = ReadText(**snapshot, StorageKey(repository_id));
    if (!stored) return stored.error();
    store::Transaction transaction;
    if (!stored->text) return transaction;
    const Result<StoredText> state = ReadText(**snapshot, RepositoryStateKey(repository_id));
    if (!state) return state.error();
    const Result<Storage> storage = ReadStorage(**snapshot, repository_id);
    if (!storage && storage.error().code() != ErrorCode::kCorrupt) return storage.error();
    transaction.compares.push_back({StorageKey(repository_id), stored->revision});
    transaction.operations.push_back({StorageKey(repository_id), std::nullopt});
    if (storage) RestoreState(repository_id, *storage, *state, transaction);
    return transaction;
  });
}

}  // namespace vexa::guests
