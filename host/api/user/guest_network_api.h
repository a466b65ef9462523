// VEXA.Virtualization.Network: the networks that guests' interfaces can be in.
#pragma once

#include <memory>
#include <vector>

#include "host/api/api_table.h"
#include "host/store/store.h"

namespace vexa::api {

// "list", "get", "add", "edit", "remove".
std::vector<ApiRow> GuestNetworkRows(const std::shared_ptr<store::Store>& store);

}  // namespace vexa::api
