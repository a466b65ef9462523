// What this host reports about itself to the cluster.
#pragma once

#include <functional>
#include <string>

#include "host/cluster/host_record.h"
#include "host/cluster/nic_id.h"
#include "host/machine/interfaces.h"
#include "host/machine/machine.h"

namespace vexa::services {

// The permanent address of an interface, whatever it uses now; "" when it has none, as virtual ones do.
using PermanentMac = std::function<std::string(const std::string& interface)>;
std::string SystemPermanentMac(const std::string& interface);

using cluster::NicId;

// Everything except "cluster_address". `host_id` is taken as given; the name is this machine's.
cluster::HostFacts GatherHostFacts(const std::string& host_id, const std::string& version, const Machine& machine,
                                   const AddressReader& addresses = SystemAddresses,
                                   const PermanentMac& permanent_mac = SystemPermanentMac);

}  // namespace vexa::services
