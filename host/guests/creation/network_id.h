// Finds networks by their names.
#pragma once

#include <optional>
#include <string>

#include "host/base/result.h"
#include "host/store/store.h"

namespace vexa::guests {

// The id of the network with this id or name, according to the records of networks, and else to the interfaces that are
// in it; "" for "". Not set: there is no such network. Errors: those of the store.
Result<std::optional<std::string>> FindNetworkId(const store::Snapshot& snapshot, const std::string& id_or_name);

}  // namespace vexa::guests
