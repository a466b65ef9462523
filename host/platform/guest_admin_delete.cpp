// Removes a guest from all guest-admin records.
#include <vector>

#include "host/records/environment.h"
#include "host/records/guest_admin.h"
#include "host/records/object_edit.h"
#include "webapi/platform/ccc_guest_admin.h"

namespace vexa::platform {
namespace {

Status RemoveGuest(store::Store& store, const std::string& guest_id) {
  std::vector<Error> damaged_records;
  const Status done = records::CommitWithRetry(store, [&](const records::Reader& reader) -> Result<store::Transaction> {
    damaged_records.clear();
    store::Transaction transaction;
    const Status added = records::AddGrantRemovals(reader, guest_id, transaction, damaged_records);
    if (!added) return added.error();
    return transaction;
  });
  if (!done) return done;
  if (!damaged_records.empty()) return damaged_records.back();
  return {};
}

}  // namespace
}  // namespace vexa::platform

namespace VexaCCC {

int gaGuestDelete(const std::string& guest_id) {
  const vexa::records::Environment* environment = vexa::records::CurrentEnvironment();
  if (!environment) return -1;
  return vexa::platform::RemoveGuest(*environment->store, guest_id) ? 0 : -1;
}

}  // namespace VexaCCC
