// Taking a guest out of all guest-admin records.
#include <optional>

#include "host/cluster/environment.h"
#include "host/cluster/guest_admin.h"
#include "host/cluster/object_edit.h"
#include "host/store/key.h"
#include "webapi/platform/ccc.h"
#include "webapi/platform/ccc_guest_admin.h"
#include "webapi/utils/json.h"

namespace vexa::cluster {
namespace {

namespace json = VexaVirtualization::json;
namespace keys = VexaCCC::DB::_k;

// Whether the guest was in the record.
bool TakeOut(Json::Value& record, const std::string& guest_id) {
  if (!json::FindMember(json::Member(record, keys::guests), guest_id)) return false;
  // Its form for texts stops at a NUL.
  return record[keys::guests].removeMember(guest_id.data(), guest_id.data() + guest_id.size(), nullptr);
}

// What to commit. A record that cannot be understood is left alone and told in `damage`: the others are not to wait for
// its repair.
Result<store::Transaction> PlanRemoval(const store::Store& store, const std::string& guest_id,
                                       std::optional<Error>& damage) {
  damage.reset();
  const auto snapshot = store.Read();
  if (!snapshot) return snapshot.error();
  const auto identifiers = (*snapshot)->Children(store::MakeKey({"dash", VexaCCC::DB::DashCate::GuestAdmin.name()}));
  if (!identifiers) return identifiers.error();
  store::Transaction transaction;
  for (const std::string& identifier : *identifiers) {
    const std::string key = GuestAdminKey(identifier);
    Result<StoredObject> stored = LoadObject(**snapshot, key);
    if (!stored && stored.error().code() != ErrorCode::kCorrupt) return stored.error();
    if (!stored) {
      damage = stored.error();
      continue;
    }
    const Json::Value& guests = json::Member(stored->record, keys::guests);
    if (!guests.isNull() && !guests.isObject()) {
      damage = Error(ErrorCode::kCorrupt, "The grants in '" + key + "' are no object: repair or delete the record");
    } else if (TakeOut(stored->record, guest_id)) {
      PutObject(transaction, key, *stored);
    }
  }
  return transaction;
}

Status RemoveGuest(store::Store& store, const std::string& guest_id) {
  std::optional<Error> damage;
  const Status done = CommitPlanned(store, [&] { return PlanRemoval(store, guest_id, damage); });
  if (!done) return done;
  if (damage) return *damage;
  return {};
}

}  // namespace
}  // namespace vexa::cluster

namespace VexaCCC {

int gaGuestDelete(const std::string& guest_id) {
  const vexa::cluster::Environment* environment = vexa::cluster::CurrentEnvironment();
  if (!environment) return -1;
  return vexa::cluster::RemoveGuest(*environment->store, guest_id) ? 0 : -1;
}

}  // namespace VexaCCC
