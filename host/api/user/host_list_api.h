// VEXA.Virtualization.Host: the hosts of the cluster, for users.
#pragma once

#include <vector>

#include "host/api/api_table.h"

namespace vexa::services {

// "list".
std::vector<webapi::ApiRow> HostListRows();

// The word for a host's stored state: "running", "inaccessible", "network_warn", "control_unavail"; otherwise
// "unknown".
std::string_view HostStateWord(std::string_view state);

}  // namespace vexa::services
