// Cluster control: MAC addresses of guests' network interfaces.
#pragma once

#include <string>

#pragma GCC visibility push(default)

namespace VexaCCC {

// Whether a guest uses `mac`; letter case does not matter. Returns 0 when no guest does, 1 when one does, and a
// negative number on failure. Unless null, `guest_id` is set to that guest on 1, and is otherwise emptied.
int VNicMacAddrCheck(const std::string& mac, std::string* guest_id);

// Generates a MAC address that no guest of the cluster uses and no earlier call has returned. Returns 0, or a negative
// number on failure.
int VNicMacAddrGen(std::string& mac);

}  // namespace VexaCCC

#pragma GCC visibility pop
