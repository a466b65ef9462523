// Which host a guest's repository is on.
#pragma once

#include <json/value.h>

#include <string>

#include "host/base/result.h"
#include "host/store/store.h"

namespace vexa::guests {

// Of the repository that the guest's record names; "" when it is not known. A key of its own goes before the record's
// member. Errors: those of the store.
Result<std::string> RepositoryHost(const store::Snapshot& snapshot, const Json::Value& guest);

}  // namespace vexa::guests
