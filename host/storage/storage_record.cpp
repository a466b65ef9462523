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

namespace vexa::guests {
namespace {

namespace json = VexaVirtualization::json;
namespace keys = VexaCCC::DB::_k;
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
  return cluster::MemberKey(DashCate::Repository.name(), repository_id, name);
}

Storage FromRecord(const cluster::StoredObject& stored) {
  Storage storage;
  storage.revision = stored.revision;
  storage.host_id = json::TextMember(stored.record, keys::host_id);
  storage.folders = TrailFromJson(json::Member(stored.record, kFolders));
  // A record without "trouble" was written before states had kinds: the storage was not mounted.
  const std::string state = json::TextMember(stored.record, kTrouble);
  if (state.empty() && !json::FindMember(stored.record, kNotMounted)) return storage;
  StorageTrouble& trouble = storage.trouble.emplace();
  if (!state.empty()) trouble.state = state;
  for (const Json::Value& folder : json::Elements(json::Member(stored.record, kNotMounted))) {
    if (folder.isString()) trouble.folders.push_back(json::String(folder));
  }
  trouble.reason = json::TextMember(stored.record, kReason);
  trouble.since = StoredTime(json::Member(stored.record, kSince));
  const std::string written = json::TextMember(stored.record, kWritten);
  if (!written.empty()) storage.written = written;
  if (state.empty()) storage.written = trouble.state;
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

// The text of the state's key, disregarding what was written there for a trouble.
std::optional<std::string> TextBelow(const Storage& storage, const StoredText& state) {
  const bool is_ours = storage.written && state.text == json::ToText(*storage.written);
  return is_ours ? storage.state_before : state.text;
}

void PutState(const std::string& repository_id, const StoredText& now, const std::optional<std::string>& text,
              store::Transaction& transaction) {
  const std::string key = RepositoryStateKey(repository_id);
  transaction.compares.push_back({key, now.revision});
  if (now.text != text) transaction.operations.push_back({key, text});
}

// The state in a text of the state's key, otherwise the one in the repository's record.
Result<std::string> StateBelow(const store::Snapshot& snapshot, const std::string& repository_id,
                               const std::optional<std::string>& text) {
  if (text) {
    const Result<Json::Value> parsed = ParseJson(*text);
    return parsed && parsed->isString() ? json::String(*parsed) : std::string();
  }
  const auto record = cluster::LoadObject(snapshot, RepositoryKey(repository_id, keys::object));
  if (!record && record.error().code() != ErrorCode::kCorrupt) return record.error();
  return record ? json::TextMember(record->record, keys::state) : std::string();
}

// Storage that cannot be used at all is always shown; otherwise the worst state is.
bool IsShown(const StorageTrouble& trouble, const std::string& below) {
  const bool is_lost =
      trouble.state == VexaCCC::State::Repo::unavailable || trouble.state == VexaCCC::State::Repo::crashed;
  return is_lost || RepositoryRank(trouble.state) > RepositoryRank(below);
}

// The part of the record that applies to this host.
Storage OwnPart(const Storage& before, const std::string& host_id) {
  Storage own = before;
  own.host_id = host_id;
  if (before.host_id != host_id) own.folders.clear();
  return own;
}

// `below`: the state without the one written for a trouble, from the text `text_below`.
Storage Apply(const Storage& before, const std::string& host_id, const StorageNews& news, const std::string& below,
              const std::optional<std::string>& text_below) {
  Storage after = OwnPart(before, host_id);
  std::erase_if(after.folders, [&](const auto& known) { return !news.used.contains(known.first); });
  after.folders.insert(news.learned.begin(), news.learned.end());
  after.trouble = news.trouble;
  after.written.reset();
  after.state_before.reset();
  if (after.trouble && IsShown(*after.trouble, below)) {
    after.written = after.trouble->state;
    after.state_before = text_below;
  }
  const bool goes_on = before.trouble && after.trouble && before.trouble->state == after.trouble->state;
  if (goes_on) after.trouble->since = before.trouble->since;
  return after;
}

Result<store::Transaction> PlanUpdate(const store::Store& store, const std::string& repository_id,
                                      const std::string& host_id, const StorageNews& news, StorageChange& change) {
  const auto snapshot = store.Read();
  if (!snapshot) return snapshot.error();
  Result<Storage> before = ReadStorage(**snapshot, repository_id);
  if (!before) return before.error();
  change = {*before, *before, ""};
  store::Transaction transaction;
  Json::Value named(Json::objectValue);
  named[keys::repository_id] = repository_id;
  const Result<std::string> host = RepositoryHost(**snapshot, named);
  if (!host) return host.error();
  if (*host != host_id || before->revision != news.seen) return transaction;
  const Result<StoredText> state = ReadText(**snapshot, RepositoryStateKey(repository_id));
  if (!state) return state.error();
  const std::optional<std::string> text_below = TextBelow(*before, *state);
  const Result<std::string> below = StateBelow(**snapshot, repository_id, text_below);
  if (!below) return below.error();
  const Storage after = Apply(*before, host_id, news, *below, text_below);
  change.state = after.written.value_or(*below);
  const std::optional<std::string> text = after.written ? json::ToText(*after.written) : text_below;
  const Json::Value record = ToRecord(after);
  const bool is_new = before->revision == 0 && (!after.folders.empty() || after.trouble);
  const bool is_changed = before->revision != 0 && record != ToRecord(*before);
  if (!is_new && !is_changed && state->text == text) return transaction;
  change.after = after;
  for (const char* name : {keys::object, keys::host_id}) {
    const Result<StoredText> owner = ReadText(**snapshot, RepositoryKey(repository_id, name));
    if (!owner) return owner.error();
    transaction.compares.push_back({RepositoryKey(repository_id, name), owner->revision});
  }
  transaction.compares.push_back({StorageKey(repository_id), before->revision});
  transaction.operations.push_back({StorageKey(repository_id), json::ToText(record)});
  PutState(repository_id, *state, text, transaction);
  return transaction;
}

}  // namespace

std::string StorageKey(const std::string& repository_id) { return RepositoryKey(repository_id, kStorage); }

std::string RepositoryStateKey(const std::string& repository_id) { return RepositoryKey(repository_id, keys::state); }

Json::Value StorageJson(const Storage& storage) {
  Json::Value record(Json::objectValue);
  record[kFolders] = TrailJson(storage.folders);
  if (!storage.trouble) return record;
  record[kTrouble] = storage.trouble->state;
  if (storage.trouble->state == VexaCCC::State::Repo::unavailable) {
    record[kNotMounted] = Json::Value(Json::arrayValue);
    for (const std::string& folder : storage.trouble->folders) record[kNotMounted].append(folder);
  }
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
    if (storage) PutState(repository_id, *state, TextBelow(*storage, *state), transaction);
    return transaction;
  });
}

}  // namespace vexa::guests
