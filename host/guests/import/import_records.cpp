#include "host/guests/import/import_records.h"

#include <set>
#include <utility>

#include "host/base/json_parse.h"
#include "host/guests/jobs/guest_locks.h"
#include "host/records/keys.h"
#include "host/records/live_state.h"
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
      std::string key = cluster::ObjectKey(category, json::String(entry));
      const auto value = snapshot.Get(key);
      if (!value) return value.error();
      if (!value->has_value()) continue;
      const Result<Json::Value> part = ParseJson((*value)->text);
      if (part && json::TextMember(*part, "guest_id") == id) parts.push_back({std::move(key), (*value)->revision});
    }
  }
  return parts;
}

Status ReadState(const store::Snapshot& snapshot, const std::string& id, StoredGuest& stored) {
  const auto value = snapshot.Get(cluster::LiveStateKey(id));
  if (!value) return value.error();
  if (value->has_value()) stored.live_revision = (*value)->revision;
  if (stored.revision == 0) return {};
  if (!value->has_value()) {
    stored.state = json::TextMember(stored.record, "state");
    return {};
  }
  const Result<Json::Value> live = ParseJson((*value)->text);
  if (live && live->isString()) stored.state = json::String(*live);
  if (!stored.state.empty()) return {};
  return Error(ErrorCode::kCorrupt, "The live state of the guest '" + id + "' cannot be read");
}

using Records = std::vector<std::pair<std::string, Json::Value>>;

void AddRecords(std::string_view category, const Records& records, std::set<std::string>& written,
                store::Transaction& transaction) {
  for (const auto& [id, record] : records) {
    std::string key = cluster::ObjectKey(category, id);
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
  const auto renames = snapshot.Get(RenamesKey());
  if (!renames) return renames.error();
  const auto value = snapshot.Get(GuestObjectKey(id));
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

store::Transaction MakeImportTransaction(const hypervisor::ImportedGuest& guest, const DomainRecord& domain,
                                         const StoredGuest& replaced) {
  const Json::Value before = replaced.record.isObject() ? replaced.record : Json::Value(Json::objectValue);
  Json::Value record = guest.guest;
  for (const char* member : {"autorun", "ha_group_id"}) {
    if (const Json::Value* kept = json::FindMember(before, member)) record[member] = *kept;
  }
  const Json::Value* const variables = json::FindMember(before, kNvramMember);
  if (variables && !json::FindMember(record, kNvramMember)) record[kNvramMember] = *variables;
  store::Transaction transaction;
  const std::string key = GuestObjectKey(guest.id);
  transaction.compares.push_back({key, replaced.revision});
  transaction.operations.push_back({key, json::ToText(record)});
  transaction.operations.push_back({DomainKey(guest.id), DomainText(domain)});
  // Code that removes or changes a file must see that this guest has it.
  transaction.operations.push_back({FilesKey(), json::ToText(Json::Value(guest.id))});
  transaction.compares.push_back({cluster::LiveStateKey(guest.id), replaced.live_revision});
  // A host that has the guest, deletes it, or edits its disks, must not find another one in its place.
  CompareFree(transaction, guest.id);
  // Two commits that assign the same name at the same time must not both find it free.
  transaction.compares.push_back({RenamesKey(), replaced.renames_revision});
  transaction.operations.push_back({RenamesKey(), json::ToText(Json::Value(guest.id))});
  const bool stays = replaced.revision != 0 && json::Member(before, "host_id") == json::Member(record, "host_id");
  if (!stays) cluster::ForgetLiveState(transaction, guest.id);
  std::set<std::string> written;
  AddRecords("vdisk", guest.disks, written, transaction);
  AddRecords("vnic", guest.nics, written, transaction);
  RemoveParts(replaced.parts, written, transaction);
  return transaction;
}

}  // namespace vexa::guests
