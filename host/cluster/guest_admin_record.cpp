#include "host/cluster/guest_admin_record.h"

#include <utility>

#include "host/base/json_parse.h"
#include "host/store/key.h"
#include "webapi/platform/ccc.h"
#include "webapi/utils/json.h"

namespace vexa::cluster {
namespace {

namespace json = VexaVirtualization::json;
namespace keys = VexaCCC::DB::_k;

// As the command line makes them.
constexpr char kOrdinaryLevel[] = "user";

void Apply(Json::Value& guests, const VexaCCC::Rule& rule) {
  if (rule.allow) {
    guests[rule.id] = true;
  } else {
    // Its form for texts stops at a NUL.
    guests.removeMember(rule.id.data(), rule.id.data() + rule.id.size(), nullptr);
  }
}

}  // namespace

bool CanBeGuestId(const std::string& id) {
  if (id.empty() || !IsValidUtf8(id)) return false;
  return store::IsKey(store::MakeKey({"dash", VexaCCC::DB::DashCate::Guest.name(), id, keys::object}));
}

Result<bool> ApplyRules(StoredObject& stored, const std::string& key, const std::vector<VexaCCC::Rule>& rules) {
  const Json::Value before = json::Member(stored.record, keys::guests);
  // Not overwritten: it may be all that is left of somebody's grants.
  if (!before.isNull() && !before.isObject()) {
    return Error(ErrorCode::kCorrupt, "The grants in '" + key + "' are no object: repair or delete the record");
  }
  Json::Value guests = before.isNull() ? Json::Value(Json::objectValue) : before;
  for (const VexaCCC::Rule& rule : rules) Apply(guests, rule);
  const bool is_same = before.isNull() ? guests.empty() : guests == before;
  if (is_same) return false;
  if (stored.revision == 0) stored.record[keys::authlevel] = kOrdinaryLevel;
  stored.record[keys::guests] = std::move(guests);
  return true;
}

}  // namespace vexa::cluster
