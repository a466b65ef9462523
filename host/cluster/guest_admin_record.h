// Changes of the grants in a guest-admin record.
#pragma once

#include <string>
#include <vector>

#include "host/base/result.h"
#include "host/cluster/object_edit.h"
#include "webapi/platform/ccc_guest_admin.h"

namespace vexa::cluster {

// Whether a guest can have this id. One that is no UTF-8 would make a record unreadable.
bool CanBeGuestId(const std::string& id);

// Applies the rules, in order, to the record that was loaded from `key`; a new record becomes an ordinary user's.
// Whether the record differs now. kCorrupt: its grants are no object, and it stays as it is.
Result<bool> ApplyRules(StoredObject& stored, const std::string& key, const std::vector<VexaCCC::Rule>& rules);

}  // namespace vexa::cluster
