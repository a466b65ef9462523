// The remaining duty of a host that was removed from the cluster.
#pragma once

#include <string>

#include "host/base/result.h"
#include "host/hypervisor/hypervisor.h"
#include "host/store/store.h"

namespace vexa::guests {

// Ends the machines of all guests that were taken from the host (cluster/host_claim_record.h), and removes their saved
// memory and the notes. For a host that does not start otherwise; the hypervisor is opened only for this. Errors: those
// of the store and the hypervisor; machines that could be ended before the error have been ended.
Status EndFencedMachines(store::Store& store, const std::string& host_id, hypervisor::HypervisorOptions hypervisor);

}  // namespace vexa::guests
