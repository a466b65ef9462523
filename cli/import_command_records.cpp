// The store's side of an import: what one commit writes.
#include <set>

#include "cli/import_command.h"
#include "host/guests/jobs/guest_locks.h"
#include "host/records/live_state.h"
#include "host/records/run_record.h"
#include "host/store/key.h"
#include "json/readers.h"

namespace vexa::cli {
namespace {

namespace json = VexaVirtualization::json;

std::string RecordKey(std::string_view category, std::string_view id) {
  return store::MakeKey({"dash", category, id, "object"});
}

using Records = std::vector<std::pair<std::string, Json::Value>>;

void AddRecords(std::string_view category, const Records& records, std::set<std::string>& written,
                store::Transaction& transaction) {
  for (const auto& [id, record] : records) {
    std::string key = RecordKey(category, id);
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

store::Transaction MakeImportTransaction(const hypervisor::ImportedGuest& guest, const guests::DomainRecord& domain,
                                         const StoredGuest& replaced) {
  const Json::Value before = replaced.record.isObject() ? replaced.record : Json::Value(Json::objectValue);
  Json::Value record = guest.guest;
  for (const char* member : {"autorun", "ha_group_id"}) {
    if (before.isMember(member)) record[member] = before[member];
  }
  const bool names_variables = record.isMember("nvram") || !before.isMember("nvram");
  if (!names_variables) record["nvram"] = before["nvram"];
  store::Transaction transaction;
  const std::string key = RecordKey("guest", guest.id);
  transaction.compares.push_back({key, replaced.revision});
  transaction.operations.push_back({key, json::ToText(record)});
  transaction.operations.push_back({guests::DomainKey(guest.id), guests::DomainText(domain)});
  // Code that removes or changes a file must see that this guest has it.
  transaction.operations.push_back({guests::FilesKey(), json::ToText(Json::Value(guest.id))});
  transaction.compares.push_back({cluster::LiveStateKey(guest.id), replaced.live_revision});
  // A host that has the guest, deletes it, or edits its disks, must not find another one in its place.
  guests::CompareFree(transaction, guest.id);
  // Two commits that assign the same name at the same time must not both find it free.
  transaction.compares.push_back({guests::RenamesKey(), replaced.renames_revision});
  transaction.operations.push_back({guests::RenamesKey(), json::ToText(Json::Value(guest.id))});
  const bool stays = replaced.revision != 0 && json::Member(before, "host_id") == json::Member(record, "host_id");
  if (!stays) cluster::ForgetLiveState(transaction, guest.id);
  std::set<std::string> written;
  AddRecords("vdisk", guest.disks, written, transaction);
  AddRecords("vnic", guest.nics, written, transaction);
  RemoveParts(replaced.parts, written, transaction);
  return transaction;
}

}  // namespace vexa::cli
