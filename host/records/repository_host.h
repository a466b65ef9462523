// Finds the host of a guest's repository.
#pragma once

#include <json/value.h>

#include <string>

#include "host/base/result.h"
#include "host/store/store.h"

namespace vexa::records {

// The id of the host of the repository that the guest's record names; "" when it is unknown. A separate key "host_id"
// overrides the member of the repository's record. Errors: those of the store.
Result<std::string> RepositoryHost(const store::Snapshot& snapshot, const Json::Value& guest);

}  // namespace vexa::records
