// Checks the network connections that this machine depends on.
#pragma once

#include "host/machine/interfaces.h"
#include "host/machine/machine.h"

namespace vexa::services {

// Whether a network card or bond that is switched on and in use has no carrier: its cable is unplugged, or the other
// end is off. A card is in use when it has an address that others can reach, also on a VLAN or bridge on top of it, or
// when it is a port of a bridge, bond or virtual switch. Spare cards do not count. Threads: any, at the same time.
bool HasBrokenLink(const Machine& machine, const AddressReader& addresses = SystemAddresses);

}  // namespace vexa::services
