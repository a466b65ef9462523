// VEXA.Virtualization.Repository: where guests' disks are.
#pragma once

#include <memory>
#include <vector>

#include "host/api/api_table.h"
#include "host/store/store.h"

namespace vexa::api {

// "list", "add", "remove", "accept".
std::vector<ApiRow> RepositoryRows(const std::shared_ptr<store::Store>& store);

}  // namespace vexa::api
