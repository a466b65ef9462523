// The method "set" of VEXA.CCC.Guest, by which other hosts change a guest's settings, disks and network interfaces.
#pragma once

#include <vector>

#include "host/api/peer/services.h"

namespace vexa::api {

// One row. docs/guests.md describes the parameters and the codes.
std::vector<ApiRow> GuestSetRows(const ServiceParts& parts);

}  // namespace vexa::api
