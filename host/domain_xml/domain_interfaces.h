// Reads the current network interfaces of a guest from the XML of its running domain.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "host/base/result.h"

namespace vexa::domain_xml {

// What an interface of the guest is attached to.
enum class NicAttachment {
  kBridge,   // a bridge of the host, also one behind a libvirt network
  kNetwork,  // a network made by libvirt: NAT, routed, isolated
  kDevice,   // a network device of the host, through macvtap
  kUser,     // QEMU's own NAT
  kOther,    // anything else; the host's end of the interface may still be on a bridge
};

struct GuestInterface {
  std::string mac;  // in lower case
  NicAttachment attachment_kind = NicAttachment::kOther;
  std::string network;  // of libvirt; "" when it is not in a network
  std::string device;   // the bridge, or the device below the macvtap; "" when libvirt does not report it
  std::string target;   // the host's end of the interface ("vnet0"); "" when it has none
  bool is_link_up = true;
};

// At most kMaxNics; interfaces without a unicast MAC address are left out.
// Errors: kInvalid when the XML is not a <domain>. Pure. Threads: any, at the same time.
Result<std::vector<GuestInterface>> ParseGuestInterfaces(std::string_view xml);

// Sets `attachment_kind` and `device` to what a libvirt network leads to, according to the network's XML and the bridge
// that libvirt reports for it. A value that neither of them has stays unchanged.
void ResolveNetwork(std::string_view network_xml, const std::string& bridge, GuestInterface& interface);

}  // namespace vexa::domain_xml
