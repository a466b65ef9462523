// The machine's network interfaces, from sysfs, and their addresses.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "host/base/interface_name.h"
#include "host/machine/machine.h"

namespace vexa::machine {

// The maximum number of interfaces on top of each other (a VLAN on a bridge on a bond …) that are followed.
inline constexpr int kMaxStackedInterfaces = 8;

struct Interface {
  std::string name;
  std::string type;    // "ethernet", "wificlient", "bond", "bridge", "vlan", "loopback", "virtual"
  std::string mac;     // "" when it has none
  std::string duplex;  // "full", "half" or "unknown"
  int speed = 0;       // Mb/s; 0 when unknown
  int mtu = 0;
  bool connected = false;           // whether it has a carrier; for a bridge with uplinks: whether one of them has
  std::vector<std::string> slaves;  // the ports of a bond
};

struct InterfaceAddress {
  std::string interface;
  std::string ip;
  std::string mask;
  bool is_ipv6 = false;
};

using AddressReader = std::function<std::vector<InterfaceAddress>()>;

// The addresses of this machine except link-local IPv6 addresses. Empty when they cannot be read.
std::vector<InterfaceAddress> SystemAddresses();

using vexa::IsInterfaceName;

// Not set if there is no such interface, or the name is invalid.
std::optional<Interface> ReadInterface(const Machine& machine, const std::string& name);

// The interfaces that connect the machine to others, sorted by name: network cards, bonds, bridges and VLANs on top of
// these, and all interfaces named "ovs_…". Excludes the taps and veth devices of guests and containers, and bridges
// that only these use. The loopback interface if there is no other.
std::vector<Interface> HostInterfaces(const Machine& machine);

// The outside connections that guests can use, sorted by name: bridges with uplinks, which need not be hardware, and
// the interfaces below macvtap devices. See NetworkLinks.
std::vector<Interface> GuestUplinks(const Machine& machine);

}  // namespace vexa::machine
