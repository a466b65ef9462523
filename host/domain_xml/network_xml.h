// The XML of libvirt's networks ("Network XML format" in its documentation): written for networks that this system
// makes, and read to know whose a network is and what it leads to. Pure. Threads: any, at the same time.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "host/base/ipv4_subnet.h"

namespace vexa::domain_xml {

// The XML namespace of the mark of this system's networks:
// <metadata><vexa:network xmlns:vexa="…" id="…" host="…" definition="…"/></metadata>.
inline constexpr char kNetworkMarkNamespace[] = "urn:vexa:network:1";

// A network to define. Which members are set decides its kind: a subnet, with or without NAT; a device, for macvtap; or
// a bridge of Open vSwitch with the tag of a VLAN.
struct NetworkDefinition {
  std::string name;
  std::string uuid;  // of libvirt's definition that it replaces; "": it is new
  std::string id;    // of the network's record
  std::string host_id;
  std::optional<Ipv4Subnet> subnet;
  bool has_nat = false;
  std::string device;
  std::string switch_bridge;
  int vlan_id = 0;

  // What the network leads to, in one line: "nat 192.168.100.0/24". Two definitions with the same line differ at most
  // in `uuid`.
  std::string Summary() const;
};

// With a subnet, the first address is the host's, and all others are handed out by DHCP.
std::string BuildNetworkXml(const NetworkDefinition& definition);

struct ParsedNetwork {
  std::string uuid;
  std::string kind;    // "nat", "isolated", "bridge", "macvtap", or "other"
  std::string bridge;  // the bridge that it has or leads to
  std::string subnet;  // its first IPv4 subnet; "": none
  // The mark of this system; "" without one.
  std::string id;
  std::string host_id;
  std::string definition;

  bool IsMarked() const { return !id.empty(); }
};

// Total: what is missing or malformed is "".
ParsedNetwork ParseNetworkXml(std::string_view xml);

}  // namespace vexa::domain_xml
