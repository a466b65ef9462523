#include "host/guests/host_networks.h"

#include <net/if.h>

#include <algorithm>

namespace vexa::guests {
namespace {

// Names that a domain's XML can have for a bridge. None of them leads out of the folder of interfaces.
bool IsInterfaceName(const std::string& name) {
  return !name.empty() && name.size() < IFNAMSIZ && name != "." && name != ".." &&
         std::ranges::none_of(name, [](char c) {
           const auto byte = static_cast<unsigned char>(c);
           return byte <= ' ' || byte >= 0x7F || c == '/' || c == ':';
         });
}

}  // namespace

BridgeKind HostNetworks::KindOf(const std::string& name) const {
  if (!IsInterfaceName(name)) return BridgeKind::kNone;
  return NetworkLinks(root_, driver_of_).KindOf(name);
}

bool HostNetworks::operator()(const std::string& name) const {
  if (name.empty()) return false;
  if (KindOf(name) != BridgeKind::kNone) return true;
  if (!libvirt_networks_) return false;
  const std::vector<std::string> networks = libvirt_networks_();
  return std::ranges::find(networks, name) != networks.end();
}

}  // namespace vexa::guests
