// The network that a peer's address counts for.
#pragma once

#include <string>

namespace vexa {

// The key under which a peer is counted. The owner of an IPv6 address usually has its whole /64, so all addresses of a
// /64 have one key, such as "2001:db8:0:1::/64". An IPv4 address, also one that is mapped into IPv6, is its own key. A
// text that is not an address is returned unchanged. Threads: any.
std::string PeerNetwork(const std::string& address);

}  // namespace vexa
