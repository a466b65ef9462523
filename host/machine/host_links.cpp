#include "host/machine/host_links.h"

#include <algorithm>
#include <set>
#include <string>

#include "host/machine/network_links.h"

namespace vexa::services {
namespace {

bool ReachesOthers(const InterfaceAddress& address) {
  const auto begins = [&](std::string_view prefix) { return address.ip.starts_with(prefix); };
  return !address.ip.empty() && address.ip != "::1" && !begins("127.") && !begins("169.254.") && !begins("fe80:");
}

class UsedInterfaces {
 public:
  UsedInterfaces(const Machine& machine, const AddressReader& addresses, guests::NetworkLinks& links)
      : machine_(machine), links_(links) {
    for (const InterfaceAddress& address : addresses()) {
      if (ReachesOthers(address)) addressed_.insert(address.interface);
    }
  }

  bool IsInUse(const std::string& name, int depth = 0) {
    if (addressed_.contains(name) || IsPort(name)) return true;
    constexpr std::string_view kUpper = "upper_";
    if (depth == kMaxStack) return false;
    return std::ranges::any_of(machine_.Names("/sys/class/net/" + name), [&](const std::string& entry) {
      const std::string upper = entry.starts_with(kUpper) ? entry.substr(kUpper.size()) : "";
      return IsInterfaceName(upper) && IsInUse(upper, depth + 1);
    });
  }

 private:
  // Cards can also have other masters, such as VRFs, that do not need all of them.
  bool IsPort(const std::string& name) {
    const std::string master = links_.MasterOf(name);
    const bool is_bonded = IsInterfaceName(master) && machine_.IsFolder("/sys/class/net/" + master + "/bonding");
    return is_bonded || links_.KindOf(master) != guests::BridgeKind::kNone || links_.IsAnySwitchPort(name);
  }

  const Machine& machine_;
  guests::NetworkLinks& links_;
  std::set<std::string> addressed_;
};

}  // namespace

bool HasBrokenLink(const Machine& machine, const AddressReader& addresses) {
  guests::NetworkLinks links(machine.root());
  UsedInterfaces used(machine, addresses, links);
  return std::ranges::any_of(HostInterfaces(machine), [&](const Interface& found) {
    const bool has_cable = found.type == "ethernet" || found.type == "wificlient" || found.type == "bond";
    return has_cable && !found.connected && links.IsSwitchedOn(found.name) && used.IsInUse(found.name);
  });
}

}  // namespace vexa::services
