// The store's side of an import: what one commit writes.
#include <set>

#include "cli/import_command.h"
#include "host/cluster/live_state.h"
#include "host/guests/run_record.h"
#include "host/store/key.h"
#include "webapi/utils/json.h"

namespace vexa::cli {
namespace {

namespace json = VexaVirtualization::json;

std::string RecordKey(std::string_view category, std::string_view id) {
  return store::MakeKey({"dash", category, id, "object"});
}

using Records = std::vector<std::pair<std::string, Json::Value>>;

// Puts `records`, and deletes those that `replaced` lists and `records` has not.
void AddRecords(std::string_view category, const Records& records, const Json::Value& replaced,
                store::Transaction& transaction) {
  std::set<std::string> kept;
  for (const auto& [id, record] : records) {
    transaction.operations.push_back({RecordKey(category, id), json::ToText(record)});
    kept.insert(id);
  }
  if (!replaced.isArray()) return;
  for (const Json::Value& id : replaced) {
    // Inserting keeps an id that is listed twice from being deleted twice.
    if (!id.isString() || !kept.insert(id.asString()).second) continue;
    transaction.operations.push_back({RecordKey(category, id.asString()), std::nullopt});
  }
}

}  // namespace

store::Transaction MakeImportTransaction(const hypervisor::ImportedGuest& guest, const StoredGuest& replaced) {
  const Json::Value before = replaced.record.isObject() ? replaced.record : Json::Value(Json::objectValue);
  Json::Value record = guest.guest;
  for (const char* member : {"autorun", "ha_group_id"}) {
    if (before.isMember(member)) record[member] = before[member];
  }
  store::Transaction transaction;
  const std::string key = RecordKey("guest", guest.id);
  transaction.compares.push_back({key, replaced.revision});
  transaction.operations.push_back({key, json::ToText(record)});
  transaction.compares.push_back({cluster::LiveStateKey(guest.id), replaced.live_revision});
  // A host that has the guest, deletes it, or edits its disks, is not to find another one in its place.
  transaction.compares.push_back({guests::RunKey(guest.id), 0});
  transaction.compares.push_back({guests::DeletionKey(guest.id), 0});
  transaction.compares.push_back({guests::EditKey(guest.id), 0});
  // Two who give the same name at the same time are not both to find it free.
  transaction.compares.push_back({guests::RenamesKey(), replaced.renames_revision});
  transaction.operations.push_back({guests::RenamesKey(), json::ToText(Json::Value(guest.id))});
  const bool stays = replaced.revision != 0 && json::Member(before, "host_id") == json::Member(record, "host_id");
  if (!stays) cluster::ForgetLiveState(transaction, guest.id);
  AddRecords("vdisk", guest.disks, before["vdisks"], transaction);
  AddRecords("vnic", guest.nics, before["vnics"], transaction);
  return transaction;
}

}  // namespace vexa::cli
