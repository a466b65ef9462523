// VEXA.Virtualization.Cluster "get", "set" and VEXA.Virtualization.Host "edit": settings that administrators make for
// the whole cluster, and for a host of it.
#pragma once

#include <memory>
#include <vector>

#include "host/api/api_table.h"
#include "host/store/store.h"

namespace vexa::api {

std::vector<ApiRow> ClusterSettingsRows(const std::shared_ptr<store::Store>& store);

}  // namespace vexa::api
