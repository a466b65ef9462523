// Changes of the grants in a guest-admin record.
#pragma once

#include <json/value.h>

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "host/base/result.h"
#include "host/records/object_edit.h"
#include "host/store/store.h"
#include "webapi/platform/ccc_guest_admin.h"

namespace vexa::cluster {

// Whether a guest can have this id. One that is no UTF-8 would make a record unreadable.
bool CanBeGuestId(const std::string& id);

// A record without grants.
Json::Value NewGrantRecord(const std::string& name, std::string_view level);

// Whether the record was given to who is called `name`. So was one without a name, and any when `name` is empty: then
// it is not known what this host calls the id.
bool IsGivenTo(const Json::Value& record, const std::string& name);

// Whether the record may be changed for who is called `name`. kDenied when it was given to another; kCorrupt when its
// grants are not an object: it may be all that is left of somebody's grants.
Status CheckGivenTo(const Json::Value& record, const std::string& key, const std::string& name);

// Applies the rules, in order, to the record that was loaded from `key`; a new record becomes an ordinary user's.
// Whether the record differs now. A record that differs has the owner's `name`, unless that is empty.
// Errors: as CheckGivenTo, and the record stays as it is.
Result<bool> ApplyRules(StoredObject& stored, const std::string& key, const std::string& name,
                        const std::vector<VexaCCC::Rule>& rules);

// The store's revision, to be asked for before an account is looked up: look-ups may take long, so no snapshot is open
// meanwhile. 0 when the store cannot tell.
store::Revision RevisionBeforeLookup(const store::Store& store);

// Adds compares to `transaction`, so that nothing is granted to a user or group that is deleted. kNotFound when it was
// deleted after the revision `seen`.
Status CompareAccount(const store::Snapshot& snapshot, std::string_view kind, std::uint32_t id, store::Revision seen,
                      store::Transaction& transaction);

}  // namespace vexa::cluster
