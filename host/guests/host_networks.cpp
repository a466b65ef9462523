#include "host/guests/host_networks.h"

#include <net/if.h>

#include <algorithm>

namespace vexa::guests {
namespace {

// Whether domain XML can have this name for a bridge. No such name leaves the kernel's folder of interfaces.
bool IsInterfaceName(const std::string& name) {
  return !name.empty() && name.size() < IFNAMSIZ && name != "." && name != ".." &&
         std::ranges::none_of(name, [](char c) {
           const auto byte = static_cast<unsigned char>(c);
           return byte <= ' ' || byte >= 0x7F || c == '/' || c == ':';
         });
}

}  // namespace

machine::BridgeKind HostNetworks::KindOf(const std::string& name) const {
  if (!IsInterfaceName(name)) return machine::BridgeKind::kNone;
  return machine::NetworkLinks(root_, driver_of_).KindOf(name);
}

bool HostNetworks::operator()(const std::string& name) const {
  if (name.empty()) return false;
  if (KindOf(name) != machine::BridgeKind::kNone) return true;
  if (!libvirt_networks_) return false;
  const std::vector<std::string> networks = libvirt_networks_();
  return std::ranges::find(networks, name) != networks.end();
}

}  // namespace vexa::guests
