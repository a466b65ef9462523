// Makes bridges and VLANs of the kernel through netlink, which takes CAP_NET_ADMIN.
//
// An interface that this system has made has the alias BridgeAlias(). Before it is made, the files for systemd-networkd
// are written, which name the network as well: an interface that a killed process has made without the alias, or that
// systemd-networkd has made when the machine started, is recognized by them. Addresses that are moved are written there
// first, so that a removal finds them.
#pragma once

#include <string>

#include "host/machine/bridge_request.h"

namespace vexa::machine {

// Whether this process has CAP_NET_ADMIN.
bool MayChangeInterfaces();

// See BridgeMaker. `folder` is that of the files for systemd-networkd ("/etc/systemd/network").
// Threads: one at a time.
Status MakeKernelBridge(const BridgeRequest& request, const std::string& folder);
Status RemoveKernelBridge(const BridgeRequest& request, const std::string& folder);

// The name of the VLAN's interface: "vx42.3f1c".
std::string VlanInterface(const BridgeRequest& request);

}  // namespace vexa::machine
