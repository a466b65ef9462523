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

namespace vexa::records {

// Whether a guest can have this id. An id that is not UTF-8 would make a record unreadable.
bool IsValidGuestId(const std::string& id);

// A record without grants.
Json::Value NewGrantRecord(const std::string& name, std::string_view level);

// Whether the record's grants were made to the principal `name`. Also true for a record without a name, and for any
// record when `name` is empty, which means that this host's name for the id is unknown.
bool BelongsTo(const Json::Value& record, const std::string& name);

// Whether the record may be changed for the principal `name`. kDenied when it belongs to another principal; kCorrupt
// when "guests" is not an object: overwriting the damaged value could destroy the only trace of the grants.
Status CheckBelongsTo(const Json::Value& record, const std::string& key, const std::string& name);

// Takes a guest's console out of the record, and the member of all consoles when it is empty then. False: it was not in
// there.
bool RemoveConsole(Json::Value& record, const std::string& guest_id);

// Applies the rules, in order, to the record that was loaded from `key`; a new record gets the level "user".
// Returns whether the record has changed. A changed record gets the owner's `name`, unless that is empty. Errors: those
// of CheckBelongsTo; the record is then unchanged.
Result<bool> ApplyGrantRules(StoredObject& stored, const std::string& key, const std::string& name,
                             const std::vector<VexaCCC::Rule>& rules);

// The store's current revision, for AddAccountCompare. Read it before looking an account up: the look-up may take long,
// so no snapshot is kept open during it. 0 when the store cannot be read.
store::Revision RevisionBeforeLookup(const store::Store& store);

// Adds compares to `transaction`, so that nothing is granted to a user or group that is deleted. kNotFound when it was
// deleted after the revision `seen`.
Status AddAccountCompare(const store::Snapshot& snapshot, std::string_view kind, std::uint32_t id, store::Revision seen,
                         store::Transaction& transaction);

}  // namespace vexa::records
