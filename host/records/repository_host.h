// Finds the host of a guest's repository.
#pragma once

#include <json/value.h>

#include <string>

#include "host/base/result.h"
#include "host/store/store.h"

namespace vexa::guests {

// For the repository that the guest's record names; "" when it is unknown. A separate key overrides the record's
// member. Errors: those of the store.
Result<std::string> RepositoryHost(const store::Snapshot& snapshot, const Json::Value& guest);

}  // namespace vexa::guests
