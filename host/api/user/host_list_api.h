// VEXA.Virtualization.Host: the hosts of the cluster, for users.
#pragma once

#include <vector>

#include "host/api/api_table.h"

namespace vexa::api {

// "list".
std::vector<ApiRow> HostListRows();

// The name of a host's stored state: "running", "inaccessible", "network_warn", "control_unavail"; otherwise
// "unknown".
std::string_view HostStateName(std::string_view state);

}  // namespace vexa::api
