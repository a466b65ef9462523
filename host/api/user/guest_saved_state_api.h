// Methods for users that suspend and save guests, or are about what libvirt stores for them: saved memory, definitions.
#pragma once

#include <vector>

#include "host/api/api_table.h"

namespace vexa::api {

// VEXA.Virtualization.Guest suspend, resume, save, restore, discard_saved, release, apply. Each asks the guest's host.
std::vector<ApiRow> GuestSavedStateRows();

}  // namespace vexa::api
