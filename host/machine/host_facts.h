// Collects what this host reports about itself to the cluster.
#pragma once

#include <functional>
#include <string>

#include "host/cluster/host_record.h"
#include "host/cluster/nic_id.h"
#include "host/machine/interfaces.h"
#include "host/machine/machine.h"

namespace vexa::machine {

// Returns the permanent MAC address of an interface, which may differ from the current one; "" when it has none, as
// virtual interfaces do not.
using PermanentMac = std::function<std::string(const std::string& interface)>;
std::string SystemPermanentMac(const std::string& interface);

using cluster::NicId;

// Returns all facts except the cluster address. `host_id` and `version` are copied; the name is this machine's host
// name.
cluster::HostFacts GatherHostFacts(const std::string& host_id, const std::string& version, const Machine& machine,
                                   const AddressReader& addresses = SystemAddresses,
                                   const PermanentMac& permanent_mac = SystemPermanentMac);

}  // namespace vexa::machine
