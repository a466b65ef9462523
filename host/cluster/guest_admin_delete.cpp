// Taking a guest out of all guest-admin records.
#include <vector>

#include "host/cluster/environment.h"
#include "host/cluster/guest_admin.h"
#include "host/cluster/object_edit.h"
#include "host/store/key.h"
#include "json/readers.h"
#include "webapi/platform/ccc.h"
#include "webapi/platform/ccc_guest_admin.h"

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

Status RemoveGuest(store::Store& store, const std::string& guest_id) {
  std::vector<Error> damage;
  const Status done = CommitPlanned(store, [&]() -> Result<store::Transaction> {
    damage.clear();
    const auto snapshot = store.Read();
    if (!snapshot) return snapshot.error();
    store::Transaction transaction;
    const Status added = AddGrantRemovals(**snapshot, guest_id, transaction, damage);
    if (!added) return added.error();
    return transaction;
  });
  if (!done) return done;
  if (!damage.empty()) return damage.back();
  return {};
}

}  // namespace

// The other records do not wait for the repair of a damaged one.
Status AddGrantRemovals(const store::Snapshot& snapshot, const std::string& guest_id, store::Transaction& transaction,
                        std::vector<Error>& damage) {
  const auto identifiers = snapshot.Children(store::MakeKey({"dash", VexaCCC::DB::DashCate::GuestAdmin.name()}));
  if (!identifiers) return identifiers.error();
  for (const std::string& identifier : *identifiers) {
    const std::string key = GuestAdminKey(identifier);
    Result<StoredObject> stored = LoadObject(snapshot, key);
    if (!stored && stored.error().code() != ErrorCode::kCorrupt) return stored.error();
    if (!stored) {
      damage.push_back(stored.error());
      continue;
    }
    const Json::Value& guests = json::Member(stored->record, keys::guests);
    if (!guests.isNull() && !guests.isObject()) {
      damage.emplace_back(ErrorCode::kCorrupt,
                          "The grants in '" + key + "' are no object: repair or delete the record");
    } else if (TakeOut(stored->record, guest_id)) {
      PutObject(transaction, key, *stored);
    }
  }
  return {};
}

}  // namespace vexa::cluster

namespace VexaCCC {

int gaGuestDelete(const std::string& guest_id) {
  const vexa::cluster::Environment* environment = vexa::cluster::CurrentEnvironment();
  if (!environment) return -1;
  return vexa::cluster::RemoveGuest(*environment->store, guest_id) ? 0 : -1;
}

}  // namespace VexaCCC
