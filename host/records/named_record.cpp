#include "host/records/named_record.h"

#include <fmt/format.h>

#include <algorithm>
#include <set>
#include <utility>

#include "host/base/json_parse.h"
#include "host/base/sanitize_for_log.h"
#include "host/records/keys.h"
#include "json/readers.h"
#include "webapi/platform/ccc.h"

namespace vexa::records {
namespace {

constexpr std::size_t kMaxListedReferrers = 10;

bool IsControl(unsigned char c) { return c < 0x20 || c == 0x7F; }

NamedRecord FromValue(std::string id, const store::ValueView& value) {
  NamedRecord named;
  named.id = std::move(id);
  named.revision = value.revision;
  Result<Json::Value> parsed = ParseJson(value.text);
  if (!parsed || !parsed->isObject()) return named;
  named.record = std::move(*parsed);
  const Json::Value& name = json::Member(named.record, VexaCCC::DB::_k::name);
  if (name.isString()) named.name = json::String(name);
  return named;
}

// Adds the key of the record's name to `transaction` if it is missing.
Status PutMissingName(const store::Snapshot& snapshot, std::string_view category, const NamedRecord& record,
                      store::Transaction& transaction) {
  std::string key = NameKey(category, record.name);
  const auto value = snapshot.Get(key);
  if (!value) return value.error();
  if (value->has_value()) return {};
  transaction.compares.push_back({key, 0});
  transaction.compares.push_back({ObjectKey(category, record.id), record.revision});
  transaction.operations.push_back({std::move(key), json::ToText(Json::Value(record.id))});
  return {};
}

}  // namespace

bool IsRecordName(std::string_view text) {
  return !text.empty() && text.size() <= kMaxRecordName && IsValidUtf8(text) && std::ranges::none_of(text, IsControl);
}

std::string DisplayName(const NamedRecord& record) {
  return SanitizeForLog(record.name.empty() ? record.id : record.name, kMaxRecordName);
}

Result<std::optional<NamedRecord>> ReadNamedRecord(const store::Snapshot& snapshot, std::string_view category,
                                                   std::string_view id) {
  const auto value = snapshot.Get(ObjectKey(category, id));
  if (!value) return value.error();
  if (!value->has_value()) return std::optional<NamedRecord>();
  return std::optional<NamedRecord>(FromValue(std::string(id), **value));
}

Result<std::vector<NamedRecord>> ReadNamedRecords(const store::Snapshot& snapshot, std::string_view category) {
  const auto ids = snapshot.Children(CategoryKey(category));
  if (!ids) return ids.error();
  std::vector<NamedRecord> all;
  for (const std::string& id : *ids) {
    Result<std::optional<NamedRecord>> one = ReadNamedRecord(snapshot, category, id);
    if (!one) return one.error();
    // Without an object, it is only what remains of a removed record.
    if (one->has_value()) all.push_back(std::move(**one));
  }
  return all;
}

Status AddNamedRecord(const store::Snapshot& snapshot, std::string_view category, const std::vector<NamedRecord>& all,
                      const NamedRecord& added, store::Transaction& transaction) {
  const std::string name_key = NameKey(category, added.name);
  const auto before = snapshot.Get(name_key);
  if (!before) return before.error();
  // An existing key belongs to a record that was removed, since no record has the name.
  transaction.compares.push_back({name_key, before->has_value() ? (*before)->revision : 0});
  transaction.operations.push_back({name_key, json::ToText(Json::Value(added.id))});
  transaction.compares.push_back({ObjectKey(category, added.id), 0});
  transaction.operations.push_back({ObjectKey(category, added.id), json::ToText(added.record)});
  // Under older versions, two records may have got one name: the first one gets the key.
  std::set<std::string_view> named;
  for (const NamedRecord& other : all) {
    if (!IsRecordName(other.name) || !named.insert(other.name).second) continue;
    if (Status put = PutMissingName(snapshot, category, other, transaction); !put) return put;
  }
  return {};
}

Status RemoveNamedRecord(const store::Snapshot& snapshot, std::string_view category, const NamedRecord& removed,
                         store::Transaction& transaction) {
  transaction.compares.push_back({ObjectKey(category, removed.id), removed.revision});
  const Status scanned =
      snapshot.Scan(RecordKey(category, removed.id), [&](std::string_view key, const store::ValueView&) {
        transaction.operations.push_back({std::string(key), std::nullopt});
        return true;
      });
  if (!scanned) return scanned;
  if (!IsRecordName(removed.name)) return {};
  std::string name_key = NameKey(category, removed.name);
  const auto name = snapshot.Get(name_key);
  if (!name) return name.error();
  if (!name->has_value() || (*name)->text != json::ToText(Json::Value(removed.id))) return {};
  transaction.compares.push_back({name_key, (*name)->revision});
  transaction.operations.push_back({std::move(name_key), std::nullopt});
  return {};
}

namespace {

Result<store::Transaction> PlanRenaming(const store::Snapshot& snapshot, std::string_view category,
                                        std::string_view kind, const std::string& id, const std::string& new_name,
                                        std::string& old_name, std::optional<Refusal>& refused) {
  store::Transaction transaction;
  old_name.clear();
  const auto all = ReadNamedRecords(snapshot, category);
  if (!all) return all.error();
  const auto renamed = std::ranges::find(*all, id, &NamedRecord::id);
  if (renamed == all->end()) {
    refused = Refusal{host_error::kNotFoundOrUnreadable,
                      fmt::format("There is no {} '{}'", kind, SanitizeForLog(id, kMaxRecordName))};
    return transaction;
  }
  old_name = DisplayName(*renamed);
  if (renamed->name == new_name) return transaction;
  const auto other = std::ranges::find(*all, new_name, &NamedRecord::name);
  if (other != all->end()) {
    refused = Refusal{kRecordExists, fmt::format("The {} '{}' has the name '{}'", kind,
                                                 SanitizeForLog(other->id, kMaxRecordName), new_name)};
    return transaction;
  }
  // Unlike the list, this reports a damaged record, which must not be replaced by its name alone.
  Result<StoredObject> stored = LoadObject(snapshot, ObjectKey(category, id));
  if (!stored) return stored.error();
  const std::string old_key = NameKey(category, renamed->name);
  const auto old_value = snapshot.Get(old_key);
  if (!old_value) return old_value.error();
  if (IsRecordName(renamed->name) && old_value->has_value() && (*old_value)->text == json::ToText(Json::Value(id))) {
    transaction.compares.push_back({old_key, (*old_value)->revision});
    transaction.operations.push_back({old_key, std::nullopt});
  }
  const std::string new_key = NameKey(category, new_name);
  const auto new_value = snapshot.Get(new_key);
  if (!new_value) return new_value.error();
  transaction.compares.push_back({new_key, new_value->has_value() ? (*new_value)->revision : 0});
  transaction.operations.push_back({new_key, json::ToText(Json::Value(id))});
  stored->record[VexaCCC::DB::_k::name] = new_name;
  PutObject(transaction, ObjectKey(category, id), *stored);
  std::set<std::string_view> named;
  for (const NamedRecord& each : *all) {
    if (each.id == id || !IsRecordName(each.name) || !named.insert(each.name).second) continue;
    if (Status put = PutMissingName(snapshot, category, each, transaction); !put) return put.error();
  }
  return transaction;
}

}  // namespace

Result<void, Refusal> RenameRecord(store::Store& store, std::string_view category, std::string_view kind,
                                   const std::string& id, const std::string& new_name, std::string& old_name) {
  old_name.clear();
  if (!IsRecordName(new_name)) {
    return Refusal{
        user_error::kBadParameter,
        fmt::format("The name of a record ({}) is 1 to 128 bytes of UTF-8 without control characters", kind)};
  }
  return CommitRecord(store, [&](const Reader& reader, std::optional<Refusal>& refused) {
    return PlanRenaming(reader, category, kind, id, new_name, old_name, refused);
  });
}

std::string FormatReferrers(const std::vector<std::string>& users) {
  std::string list;
  const std::size_t listed = std::min(users.size(), kMaxListedReferrers);
  for (std::size_t i = 0; i < listed; ++i) list += (i == 0 ? "" : ", ") + users[i];
  if (users.size() > listed) list += " and " + std::to_string(users.size() - listed) + " more";
  return list;
}

}  // namespace vexa::records
