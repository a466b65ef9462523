// Addresses and routes as the files of systemd-networkd have them. For host/machine/*.cpp only.
#pragma once

#include <string>

#include "host/machine/bridge_files.h"
#include "host/machine/netlink.h"

namespace vexa::machine {

// As nl_addr2str writes it; "" for null.
std::string AddressText(nl_addr* address);

// What two interfaces have together, each address once. Addresses with a limited life, and the routes that came with
// them, are leases.
BridgeAddresses DescribeAddresses(const Configured& a, const Configured& b);

}  // namespace vexa::machine
