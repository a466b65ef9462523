// Changes the grants in a guest-admin record.
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

// Whether a guest can have this id. An id that is not UTF-8 would make a record unreadable.
bool CanBeGuestId(const std::string& id);

// A record without grants.
Json::Value NewGrantRecord(const std::string& name, std::string_view level);

// Whether the record was given to the principal `name`. Also true for a record without a name, and for any record when
// `name` is empty, which means that this host's name for the id is unknown.
bool IsGivenTo(const Json::Value& record, const std::string& name);

// Whether the record may be changed for the principal `name`. kDenied when it was given to another one; kCorrupt when
// its grants are not an object, because they may be all that is left of the grants.
Status CheckGivenTo(const Json::Value& record, const std::string& key, const std::string& name);

// Applies the rules, in order, to the record that was loaded from `key`; a new record becomes that of an ordinary user.
// Returns whether the record differs now. A changed record gets the owner's `name`, unless that is empty. Errors: those
// of CheckGivenTo; the record is then unchanged.
Result<bool> ApplyRules(StoredObject& stored, const std::string& key, const std::string& name,
                        const std::vector<VexaCCC::Rule>& rules);

// The store's revision, to be read before an account is looked up: look-ups may take long, so no snapshot is open
// meanwhile. 0 when the store cannot return it.
store::Revision RevisionBeforeLookup(const store::Store& store);

// Adds compares to `transaction`, so that nothing is granted to a user whose account is deleted. kNotFound when it was
// deleted after the revision `seen`. Adds nothing for groups, which cannot be deleted.
Status CompareAccount(const store::Snapshot& snapshot, std::string_view kind, std::uint32_t id, store::Revision seen,
                      store::Transaction& transaction);

}  // namespace vexa::cluster
