// VEXA.Virtualization.Host "get" and VEXA.Virtualization.Guest "info": what the cluster's hosts report when asked.
#pragma once

#include <vector>

#include "host/api/api_table.h"

namespace vexa::api {

std::vector<ApiRow> HostQueryRows();

}  // namespace vexa::api
