#include "host/guests/import/import_records.h"

#include <fmt/format.h>

#include <set>
#include <utility>

#include "host/base/json_parse.h"
#include "host/records/keys.h"
#include "host/records/live_state.h"
#include "host/records/network_record.h"
#include "host/records/run_record.h"
#include "json/readers.h"

namespace vexa::guests {
namespace {

namespace json = VexaVirtualization::json;

// The guest's own disks and network interfaces. Its lists can also name parts of another guest, which keeps them.
Result<std::vector<StoredPart>> ReadParts(const store::Snapshot& snapshot, const std::string& id,
                                          const Json::Value& record) {
  std::vector<StoredPart> parts;
  for (const auto& [list, category] : {std::pair{"vdisks", "vdisk"}, std::pair{"vnics", "vnic"}}) {
    for (const Json::Value& entry : json::Elements(json::Member(record, list))) {
      if (!entry.isString() || json::String(entry).empty()) continue;
      std::string key = records::ObjectKey(category, json::String(entry));
      const auto value = snapshot.Get(key);
      if (!value) return value.error();
      if (!value->has_value()) continue;
      const Result<Json::Value> part = ParseJson((*value)->text);
      if (part && json::StringMember(*part, "guest_id") == id) parts.push_back({std::move(key), (*value)->revision});
    }
  }
  return parts;
}

Status ReadState(const store::Snapshot& snapshot, const std::string& id, StoredGuest& stored) {
  const auto value = snapshot.Get(records::LiveStateKey(id));
  if (!value) return value.error();
  if (value->has_value()) stored.live_revision = (*value)->revision;
  if (stored.revision == 0) return {};
  if (!value->has_value()) {
    stored.state = json::StringMember(stored.record, "state");
    return {};
  }
  const Result<Json::Value> live = ParseJson((*value)->text);
  if (live && live->isString()) stored.state = json::String(*live);
  if (!stored.state.empty()) return {};
  return Error(ErrorCode::kCorrupt, fmt::format("The live state of the guest '{}' cannot be read", id));
}

using Records = std::vector<std::pair<std::string, Json::Value>>;

void AddRecords(std::string_view category, const Records& records, std::set<std::string>& written,
                store::Transaction& transaction) {
  for (const auto& [id, record] : records) {
    std::string key = records::ObjectKey(category, id);
    transaction.operations.push_back({key, json::ToText(record)});
    written.insert(std::move(key));
  }
}

// Deletes the parts that the replaced guest had and the new one does not have, as long as they still belong to the
// guest.
void RemoveParts(const std::vector<StoredPart>& parts, std::set<std::string>& written,
                 store::Transaction& transaction) {
  for (const StoredPart& part : parts) {
    // The insertion keeps a part that is listed twice from being deleted twice.
    if (!written.insert(part.key).second) continue;
    transaction.compares.push_back({part.key, part.revision});
    transaction.operations.push_back({part.key, std::nullopt});
  }
}

}  // namespace

Result<StoredGuest> ReadStoredGuest(const store::Snapshot& snapshot, const std::string& id) {
  const auto renames = snapshot.Get(records::GuestNamesGuardKey());
  if (!renames) return renames.error();
  const auto value = snapshot.Get(records::GuestObjectKey(id));
  if (!value) return value.error();
  StoredGuest stored;
  stored.renames_revision = *renames ? (*renames)->revision : 0;
  if (value->has_value()) {
    stored.revision = (*value)->revision;
    Result<Json::Value> record = ParseJson((*value)->text);
    if (record && record->isObject()) stored.record = std::move(*record);
  }
  if (Status read = ReadState(snapshot, id, stored); !read) return read.error();
  Result<std::vector<StoredPart>> parts = ReadParts(snapshot, id, stored.record);
  if (!parts) return parts.error();
  stored.parts = std::move(*parts);
  return stored;
}

store::Transaction MakeImportTransaction(const domain_xml::ImportedGuest& guest, const records::DomainRecord& domain,
                                         const StoredGuest& replaced, std::initializer_list<GuestLock> own_locks) {
  const Json::Value before = replaced.record.isObject() ? replaced.record : Json::Value(Json::objectValue);
  Json::Value record = guest.guest;
  for (const char* member : {"autorun", "ha_group_id"}) {
    if (const Json::Value* kept = json::FindMember(before, member)) record[member] = *kept;
  }
  const Json::Value* const variables = json::FindMember(before, records::kNvramMember);
  if (variables && !json::FindMember(record, records::kNvramMember)) record[records::kNvramMember] = *variables;
  store::Transaction transaction;
  const std::string key = records::GuestObjectKey(guest.id);
  transaction.compares.push_back({key, replaced.revision});
  transaction.operations.push_back({key, json::ToText(record)});
  transaction.operations.push_back({records::DomainKey(guest.id), records::SerializeDomain(domain)});
  // Code that removes or changes a file must notice that this guest refers to it.
  transaction.operations.push_back({records::FileReferencesGuardKey(), json::ToText(Json::Value(guest.id))});
  // The same for networks.
  if (!guest.nics.empty()) {
    transaction.operations.push_back({records::NetworksGuardKey(), json::ToText(Json::Value(guest.id))});
  }
  transaction.compares.push_back({records::LiveStateKey(guest.id), replaced.live_revision});
  // The guest must not be replaced while a host holds it, deletes it, or edits its disks.
  CompareFree(transaction, guest.id, own_locks);
  // Two commits that assign the same name at the same time must not both find it free.
  transaction.compares.push_back({records::GuestNamesGuardKey(), replaced.renames_revision});
  transaction.operations.push_back({records::GuestNamesGuardKey(), json::ToText(Json::Value(guest.id))});
  const bool stays = replaced.revision != 0 && json::Member(before, "host_id") == json::Member(record, "host_id");
  if (!stays) records::AddLiveStateRemoval(transaction, guest.id);
  std::set<std::string> written;
  AddRecords("vdisk", guest.disks, written, transaction);
  AddRecords("vnic", guest.nics, written, transaction);
  RemoveParts(replaced.parts, written, transaction);
  return transaction;
}

}  // namespace vexa::guests
