// VEXA.Virtualization.Guest: the status of guests, for users.
#pragma once

#include <vector>

#include "host/api/api_table.h"
#include "host/api/user/guest_states.h"

namespace vexa::services {

// "list" and "status": the current records, and links that are a few seconds old. Neither waits for a host for more
// than a moment. `states` must outlive the rows.
std::vector<webapi::ApiRow> GuestStateRows(GuestStates& states);

}  // namespace vexa::services
