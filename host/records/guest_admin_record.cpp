#include "host/records/guest_admin_record.h"

#include <fmt/format.h>

#include <utility>

#include "host/base/json_parse.h"
#include "host/records/account_records.h"
#include "host/records/guest_admin.h"
#include "host/records/keys.h"
#include "host/store/key.h"
#include "json/readers.h"
#include "webapi/platform/ccc.h"

namespace vexa::records {
namespace {

// The same word as in the command line.
constexpr char kOrdinaryLevel[] = "user";
constexpr char kName[] = "name";

void Apply(Json::Value& guests, const VexaCCC::Rule& rule) {
  if (rule.allow) {
    guests[rule.id] = true;
  } else {
    // The overload for C strings stops at a NUL.
    guests.removeMember(rule.id.data(), rule.id.data() + rule.id.size(), nullptr);
  }
}

}  // namespace

bool IsValidGuestId(const std::string& id) {
  if (id.empty() || !IsValidUtf8(id)) return false;
  return store::IsValidKey(ObjectKey(VexaCCC::DB::DashCate::Guest.name(), id));
}

Json::Value NewGrantRecord(const std::string& name, std::string_view level) {
  Json::Value record(Json::objectValue);
  record[keys::authlevel] = std::string(level);
  record[keys::guests] = Json::Value(Json::objectValue);
  if (!name.empty()) record[kName] = name;
  return record;
}

bool BelongsTo(const Json::Value& record, const std::string& name) {
  const Json::Value* owner = json::FindMember(record, kName);
  return owner == nullptr || name.empty() || (owner->isString() && json::String(*owner) == name);
}

Status CheckBelongsTo(const Json::Value& record, const std::string& key, const std::string& name) {
  const Json::Value& guests = json::Member(record, keys::guests);
  if (!guests.isNull() && !guests.isObject()) {
    return Error(ErrorCode::kCorrupt,
                 fmt::format("The grants in '{}' are not an object. Repair or delete the record", key));
  }
  if (BelongsTo(record, name)) return {};
  return Error(
      ErrorCode::kDenied,
      fmt::format("The grants in '{}' were given to '{}', and this host calls the id '{}'. Make ids and names the same "
                  "on all hosts, or drop the grants with 'vexa user drop-grants' or 'vexa group drop-grants'",
                  key, json::String(json::Member(record, kName)), name));
}

bool RemoveConsole(Json::Value& record, const std::string& guest_id) {
  if (!json::FindMember(json::Member(record, kConsoles), guest_id)) return false;
  Json::Value& consoles = record[kConsoles];
  // The overload for C strings stops at a NUL.
  consoles.removeMember(guest_id.data(), guest_id.data() + guest_id.size(), nullptr);
  if (consoles.empty()) record.removeMember(kConsoles);
  return true;
}

Result<bool> ApplyGrantRules(StoredObject& stored, const std::string& key, const std::string& name,
                             const std::vector<VexaCCC::Rule>& rules) {
  if (Status owner = CheckBelongsTo(stored.record, key, name); !owner) return owner.error();
  const Json::Value before = json::Member(stored.record, keys::guests);
  Json::Value guests = before.isNull() ? Json::Value(Json::objectValue) : before;
  bool has_lost_console = false;
  for (const VexaCCC::Rule& rule : rules) {
    Apply(guests, rule);
    if (!rule.allow && RemoveConsole(stored.record, rule.id)) has_lost_console = true;
  }
  const bool is_same = before.isNull() ? guests.empty() : guests == before;
  if (is_same && !has_lost_console) return false;
  if (stored.revision == 0) stored.record[keys::authlevel] = kOrdinaryLevel;
  if (!name.empty()) stored.record[kName] = name;
  stored.record[keys::guests] = std::move(guests);
  return true;
}

store::Revision RevisionBeforeLookup(const store::Store& store) {
  const auto snapshot = store.Read();
  return snapshot ? (*snapshot)->revision() : 0;
}

// A deletion recorded before the look-up proves nothing: the id may belong to an account of another provider since
// then.
Status AddAccountCompare(const store::Snapshot& snapshot, std::string_view kind, std::uint32_t id, store::Revision seen,
                         store::Transaction& transaction) {
  const bool is_user = kind == kUsersKind;
  const std::string deleted_key = is_user ? DeletedUserKey(id) : DeletedGroupKey(id);
  const auto deleted = snapshot.Get(deleted_key);
  if (!deleted) return deleted.error();
  const store::Revision revision = deleted->has_value() ? (*deleted)->revision : 0;
  if (revision > seen) {
    return Error(ErrorCode::kNotFound, is_user ? "The user has been deleted" : "The group has been deleted");
  }
  transaction.compares.push_back({deleted_key, revision});
  return {};
}

}  // namespace vexa::records
