// Cluster control: addresses of guests' network interfaces.
#pragma once

#include <string>

#pragma GCC visibility push(default)

namespace VexaCCC {

// 0: no guest uses `mac`. Otherwise a guest does (1, and `guest_id` is set when it is not null) or it is unknown
// (negative, and `guest_id` is empty). Letter case does not matter.
int VNicMacAddrCheck(const std::string& mac, std::string* guest_id);

// A new address that no guest of the cluster uses and no other call has been given: 0, or negative on failure.
int VNicMacAddrGen(std::string& mac);

}  // namespace VexaCCC

#pragma GCC visibility pop
