// The machine's network interfaces, from sysfs, and their addresses.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "host/machine/machine.h"

namespace vexa::services {

// How many interfaces can be on top of each other: a VLAN on a bridge on a bond on …
inline constexpr int kMaxStack = 8;

struct Interface {
  std::string name;
  std::string type;    // "ethernet", "wificlient", "bond", "bridge", "vlan", "loopback", "virtual"
  std::string mac;     // "" when it has none
  std::string duplex;  // "full", "half" or "unknown"
  int speed = 0;       // Mb/s; 0 when unknown
  int mtu = 0;
  bool connected = false;  // it has a carrier; for a bridge with uplinks: one of them has, its guests do not count
  std::vector<std::string> slaves;  // for a bond
};

struct InterfaceAddress {
  std::string interface;
  std::string ip;
  std::string mask;
  bool is_ipv6 = false;
};

using AddressReader = std::function<std::vector<InterfaceAddress>()>;

// The addresses of this machine, without link-local IPv6 ones. Empty when they cannot be read.
std::vector<InterfaceAddress> SystemAddresses();

// 1 to 15 bytes of UTF-8 without '/', ':', blanks and control characters, and neither "." nor "..": the names that the
// kernel accepts, so that a name cannot lead out of its folder.
bool IsInterfaceName(const std::string& name);

// Not set: there is no such interface, or the name is invalid.
std::optional<Interface> ReadInterface(const Machine& machine, const std::string& name);

// The interfaces that connect the machine to others, by name: interfaces with a device behind them, bonds, and bridges
// and VLANs on top of these; those named "ovs_…". Excludes the ends of guests and containers, and bridges that only
// they use. Loopback when there is nothing else.
std::vector<Interface> HostInterfaces(const Machine& machine);

// The outside connections that guests can use, by name: bridges with uplinks, which need not be hardware, and
// interfaces below a macvtap. See NetworkLinks.
std::vector<Interface> GuestPorts(const Machine& machine);

}  // namespace vexa::services
