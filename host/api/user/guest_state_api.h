// VEXA.Virtualization.Guest: the status of guests, for users.
#pragma once

#include <vector>

#include "host/api/api_table.h"
#include "host/api/user/guest_states.h"

namespace vexa::api {

// "list" and "status". They use the current records, and link states that may be a few seconds old. Neither waits for a
// host for more than a second. `states` must outlive the rows.
std::vector<ApiRow> GuestStateRows(GuestStates& states);

}  // namespace vexa::api
