// Methods for users about what libvirt stores for guests: saved memory, and definitions.
#pragma once

#include <vector>

#include "host/api/api_table.h"

namespace vexa::api {

// VEXA.Virtualization.Guest discard_saved, release. Each asks the guest's host.
std::vector<ApiRow> GuestSavedStateRows();

}  // namespace vexa::api
