// The store's side of an import: what one commit writes.
#include <json/writer.h>

#include <set>

#include "cli/import_command.h"
#include "host/store/key.h"

namespace vexa::cli {
namespace {

std::string RecordKey(std::string_view category, std::string_view id) {
  return store::MakeKey({"dash", category, id, "object"});
}

std::string Render(const Json::Value& value) {
  Json::StreamWriterBuilder builder;
  builder["indentation"] = "";
  builder["emitUTF8"] = true;
  return Json::writeString(builder, value);
}

using Records = std::vector<std::pair<std::string, Json::Value>>;

// Puts `records`, and deletes those that `replaced` lists and `records` has not.
void AddRecords(std::string_view category, const Records& records, const Json::Value& replaced,
                store::Transaction& transaction) {
  std::set<std::string> kept;
  for (const auto& [id, record] : records) {
    transaction.operations.push_back({RecordKey(category, id), Render(record)});
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
  transaction.operations.push_back({key, Render(record)});
  AddRecords("vdisk", guest.disks, before["vdisks"], transaction);
  AddRecords("vnic", guest.nics, before["vnics"], transaction);
  return transaction;
}

}  // namespace vexa::cli
