// Removes a guest from all guest-admin records.
#include <vector>

#include "host/records/environment.h"
#include "host/records/guest_admin.h"
#include "host/records/object_edit.h"
#include "webapi/platform/ccc_guest_admin.h"

namespace vexa::cluster {
namespace {

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
}  // namespace vexa::cluster

namespace VexaCCC {

int gaGuestDelete(const std::string& guest_id) {
  const vexa::cluster::Environment* environment = vexa::cluster::CurrentEnvironment();
  if (!environment) return -1;
  return vexa::cluster::RemoveGuest(*environment->store, guest_id) ? 0 : -1;
}

}  // namespace VexaCCC
