// Checks the network connections that this machine depends on.
#pragma once

#include "host/machine/interfaces.h"
#include "host/machine/machine.h"

namespace vexa::machine {

// Whether a network card or bond that is administratively up and in use has no carrier, because its cable is unplugged
// or the other end is off. A card is in use if it, or a VLAN or bridge on top of it, has an address that other machines
// can reach, or if it is a port of a bridge, bond or virtual switch. Spare cards are ignored. Threads: any, at the same
// time.
bool HasBrokenLink(const Machine& machine, const AddressReader& addresses = SystemAddresses);

}  // namespace vexa::machine
