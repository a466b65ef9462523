// Stops the remaining guests of a host that was removed from the cluster.
#pragma once

#include <string>

#include "host/base/result.h"
#include "host/hypervisor/hypervisor.h"
#include "host/store/store.h"

namespace vexa::guests {

// Stops the domains of all guests that were taken from the host, and removes their saved memory and fence records
// (records/host_claim_record.h). For a host that does not start otherwise; the hypervisor is opened only for this.
// Errors: those of the store and the hypervisor; other domains have been stopped even then.
Status StopFencedDomains(store::Store& store, const std::string& host_id, hypervisor::HypervisorOptions hypervisor);

}  // namespace vexa::guests
