// The repository and the host of imported guests.
#pragma once

#include <string>

#include "host/base/refusal.h"
#include "host/base/result.h"
#include "host/guests/import/guest_import.h"
#include "host/store/store.h"

namespace vexa::api {

// Sets the ids that `request` leaves out: the host that was asked, and the only repository of the guest's host.
// Refusals: 401 (that host has no repository, or several, which are named), 992 (they cannot be read).
Result<void, Refusal> SetMissingPlaces(const store::Snapshot& snapshot, const std::string& own_host_id,
                                       guests::ImportRequest& request);

}  // namespace vexa::api
