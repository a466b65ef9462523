// Where a guest could be powered on: this host's own rating, and the ratings of all hosts of the cluster.
#pragma once

#include <chrono>
#include <vector>

#include "host/api/peer/services.h"

namespace vexa::api {

// "VEXA.CCC.Guest" "check_resource", and "VEXA.Virtualization.Guest.Action" "check_host_resource", which asks every
// host for it through the platform's senders and waits at most `timeout` (whole seconds). docs/services.md describes
// the replies.
std::vector<ApiRow> GuestRatingRows(const ServiceParts& parts, std::chrono::seconds timeout = std::chrono::seconds(10));

}  // namespace vexa::api
