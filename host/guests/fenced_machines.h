// What a host that was removed from the cluster still has to do.
#pragma once

#include <string>

#include "host/base/result.h"
#include "host/hypervisor/hypervisor.h"
#include "host/store/store.h"

namespace vexa::guests {

// Ends the machines of all guests that were taken from the host (cluster/host_claim_record.h), removes their saved
// memory and the notes. For a host that does not start otherwise; it opens the hypervisor for as long as it takes.
// Errors: what the store and the hypervisor say; machines that could be ended by then are.
Status EndFencedMachines(store::Store& store, const std::string& host_id, hypervisor::HypervisorOptions hypervisor);

}  // namespace vexa::guests
