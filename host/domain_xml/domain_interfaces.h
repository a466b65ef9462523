// The network interfaces that a machine has now, from the XML of its running domain.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "host/base/result.h"

namespace vexa::hypervisor {

// What the machine's end of an interface is plugged into.
enum class PluggedInto {
  kBridge,   // a bridge of the host, also one that a network of libvirt's leads to
  kNetwork,  // a network that libvirt has made: NAT, routed, isolated
  kDevice,   // a network device of the host, through macvtap
  kUser,     // QEMU's own NAT
  kOther,    // anything else; its end in the host may still be on a bridge
};

struct GuestInterface {
  std::string mac;  // in lower case
  PluggedInto plugged_into = PluggedInto::kOther;
  std::string network;  // of libvirt's; "" when it is in none
  std::string device;   // the bridge, or the device below the macvtap; "" when libvirt does not say
  std::string target;   // the interface's end in the host ("vnet0"); "" when it has none
  bool is_link_up = true;
};

// At most kMaxNics; those without a unicast MAC address are left out.
// Errors: kInvalid for what is not a <domain>. Pure. Threads: any, at the same time.
Result<std::vector<GuestInterface>> ParseGuestInterfaces(std::string_view xml);

// Where guests in a network of libvirt's get to, by the network's XML and the bridge that libvirt names for it. Sets
// `plugged_into` and `device`; what the XML does not say stays.
void ResolveNetwork(std::string_view network_xml, const std::string& bridge, GuestInterface& interface);

}  // namespace vexa::hypervisor
