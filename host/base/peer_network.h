// Which addresses count as one client where clients are limited.
#pragma once

#include <string>

namespace vexa {

// The network of an address: that of an IPv6 address is its /64, "2001:db8::/64", because a client usually controls all
// addresses of one. An IPv4 address is a network of its own, also when it is mapped into IPv6. The zone of a link-local
// address stays: "fe80::/64%eth0". Anything else, such as "unix:1000", is returned as it is.
std::string PeerNetwork(const std::string& address);

}  // namespace vexa
