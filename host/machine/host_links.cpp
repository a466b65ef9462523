#include "host/machine/host_links.h"

#include <algorithm>
#include <set>
#include <string>

#include "host/machine/network_links.h"

namespace vexa::machine {
namespace {

// Whether other machines can reach the address: it is neither loopback nor link-local.
bool IsExternalAddress(const InterfaceAddress& address) {
  const auto starts_with = [&](std::string_view prefix) { return address.ip.starts_with(prefix); };
  return !address.ip.empty() && address.ip != "::1" && !starts_with("127.") && !starts_with("169.254.") &&
         !starts_with("fe80:");
}

class UsedInterfaces {
 public:
  UsedInterfaces(const Machine& machine, const AddressReader& addresses, NetworkLinks& links)
      : machine_(machine), links_(links) {
    for (const InterfaceAddress& address : addresses()) {
      if (IsExternalAddress(address)) with_address_.insert(address.interface);
    }
  }

  // Checks the interface and those on top of it.
  bool IsInUse(const std::string& name, int depth = 0) {
    if (with_address_.contains(name) || IsPort(name)) return true;
    constexpr std::string_view kUpper = "upper_";
    if (depth == kMaxStackedInterfaces) return false;
    return std::ranges::any_of(machine_.Names("/sys/class/net/" + name), [&](const std::string& entry) {
      const std::string upper = entry.starts_with(kUpper) ? entry.substr(kUpper.size()) : "";
      return IsInterfaceName(upper) && IsInUse(upper, depth + 1);
    });
  }

 private:
  // Whether it is a port of a bridge, bond or switch. Other masters, such as VRFs, do not count: they also work without
  // some of their interfaces.
  bool IsPort(const std::string& name) {
    const std::string master = links_.MasterOf(name);
    const bool is_bonded = IsInterfaceName(master) && machine_.IsFolder("/sys/class/net/" + master + "/bonding");
    return is_bonded || links_.KindOf(master) != BridgeKind::kNone || links_.IsAnySwitchPort(name);
  }

  const Machine& machine_;
  NetworkLinks& links_;
  std::set<std::string> with_address_;  // interfaces with an external address
};

}  // namespace

bool HasBrokenLink(const Machine& machine, const AddressReader& addresses) {
  NetworkLinks links(machine.root());
  UsedInterfaces used(machine, addresses, links);
  return std::ranges::any_of(HostInterfaces(machine), [&](const Interface& interface) {
    const bool has_cable = interface.type == "ethernet" || interface.type == "wificlient" || interface.type == "bond";
    return has_cable && !interface.connected && links.IsAdminUp(interface.name) && used.IsInUse(interface.name);
  });
}

}  // namespace vexa::machine
