// VEXA.Virtualization.Repository: where guests' disks are.
#pragma once

#include <memory>
#include <vector>

#include "host/api/api_table.h"
#include "host/store/store.h"

namespace vexa::services {

// "list", "add", "remove", "accept".
std::vector<webapi::ApiRow> RepositoryRows(std::shared_ptr<store::Store> store);

}  // namespace vexa::services
