#include "host/machine/interfaces.h"

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <memory>
#include <string_view>

#include "host/base/json_parse.h"
#include "host/machine/network_links.h"

namespace vexa::machine {
namespace {

constexpr std::size_t kMaxInterfaces = 1024;
constexpr std::uint64_t kMaxInt = 0x7FFFFFFF;

std::string FolderOf(const std::string& name) { return "/sys/class/net/" + name; }

int ReadIntOrZero(const Machine& machine, const std::string& path) {
  // "-1" and, on older kernels, its unsigned form mean "unknown".
  const std::uint64_t number = machine.ReadNumber(path).value_or(0);
  return number > kMaxInt ? 0 : static_cast<int>(number);
}

// For a bridge with uplinks, whether one of them has a carrier: the bridge itself also has a carrier because of its
// guests, which do not connect it to other machines.
bool IsConnected(NetworkLinks& links, const std::string& name) {
  const bool is_bridge_without_uplinks = links.KindOf(name) != BridgeKind::kNone && links.UplinksOf(name).empty();
  return is_bridge_without_uplinks ? links.HasCarrier(name) : links.HasLink(name);
}

bool IsVlan(const Machine& machine, const std::string& folder) {
  bool found = false;
  const std::string text = machine.Read(folder + "/uevent").value_or("");
  ForEachLine(text, [&found](std::string_view line) {
    found = line == "DEVTYPE=vlan";
    return !found;
  });
  return found;
}

std::string TypeOf(const Machine& machine, NetworkLinks& links, const std::string& name) {
  constexpr std::uint64_t kLoopback = 772;  // ARPHRD_LOOPBACK
  const std::string folder = FolderOf(name);
  if (machine.IsFolder(folder + "/bonding")) return "bond";
  if (links.KindOf(name) != BridgeKind::kNone || name.starts_with("ovs_")) return "bridge";
  if (machine.IsFolder(folder + "/wireless") || machine.IsFolder(folder + "/phy80211")) return "wificlient";
  if (machine.IsFolder(folder + "/device")) return "ethernet";
  if (IsVlan(machine, folder)) return "vlan";
  return machine.ReadNumber(folder + "/type") == kLoopback ? "loopback" : "virtual";
}

// Whether the interface connects the machine to others. For a virtual switch, the kernel may show only its name.
bool IsHostInterface(NetworkLinks& links, const Interface& interface) {
  if (interface.name.starts_with("ovs_")) return true;
  const bool has_suitable_type = interface.type == "ethernet" || interface.type == "wificlient" ||
                                 interface.type == "bond" || interface.type == "bridge" || interface.type == "vlan";
  return has_suitable_type && links.IsPhysical(interface.name);
}

std::optional<Interface> Read(const Machine& machine, NetworkLinks& links, const std::string& name) {
  const std::string folder = FolderOf(name);
  if (!IsInterfaceName(name) || !machine.IsFolder(folder)) return std::nullopt;
  Interface interface;
  interface.name = name;
  interface.type = TypeOf(machine, links, name);
  interface.mac = machine.ReadLine(folder + "/address");
  interface.duplex = machine.ReadLine(folder + "/duplex");
  if (interface.duplex.empty()) interface.duplex = "unknown";
  interface.speed = ReadIntOrZero(machine, folder + "/speed");
  interface.mtu = ReadIntOrZero(machine, folder + "/mtu");
  interface.connected = IsConnected(links, name);
  const std::string slaves = machine.ReadLine(folder + "/bonding/slaves");
  for (const std::string_view slave : Fields(slaves)) interface.slaves.emplace_back(slave);
  return interface;
}

std::string FormatIp(const sockaddr* address) {
  std::array<char, INET6_ADDRSTRLEN> text{};
  if (!address) return "";
  const void* bytes = address->sa_family == AF_INET
                          ? static_cast<const void*>(&reinterpret_cast<const sockaddr_in*>(address)->sin_addr)
                          : &reinterpret_cast<const sockaddr_in6*>(address)->sin6_addr;
  return ::inet_ntop(address->sa_family, bytes, text.data(), text.size()) ? text.data() : "";
}

bool IsUsable(const sockaddr* address) {
  if (!address) return false;
  if (address->sa_family == AF_INET) return true;
  return address->sa_family == AF_INET6 &&
         !IN6_IS_ADDR_LINKLOCAL(&reinterpret_cast<const sockaddr_in6*>(address)->sin6_addr);
}

}  // namespace

std::vector<InterfaceAddress> SystemAddresses() {
  std::vector<InterfaceAddress> addresses;
  ifaddrs* list = nullptr;
  if (::getifaddrs(&list) != 0) return addresses;
  const std::unique_ptr<ifaddrs, void (*)(ifaddrs*)> owner(list, ::freeifaddrs);
  for (const ifaddrs* entry = list; entry; entry = entry->ifa_next) {
    if (!IsUsable(entry->ifa_addr)) continue;
    addresses.push_back({entry->ifa_name, FormatIp(entry->ifa_addr), FormatIp(entry->ifa_netmask),
                         entry->ifa_addr->sa_family == AF_INET6});
  }
  return addresses;
}

std::optional<Interface> ReadInterface(const Machine& machine, const std::string& name) {
  NetworkLinks links(machine.root());
  return Read(machine, links, name);
}

std::vector<Interface> HostInterfaces(const Machine& machine) {
  NetworkLinks links(machine.root());
  std::vector<Interface> interfaces;
  std::vector<Interface> loopback;
  for (const std::string& name : machine.Names("/sys/class/net")) {
    std::optional<Interface> interface = Read(machine, links, name);
    if (!interface || interfaces.size() == kMaxInterfaces) continue;
    if (IsHostInterface(links, *interface)) {
      interfaces.push_back(std::move(*interface));
    } else if (interface->type == "loopback") {
      loopback.push_back(std::move(*interface));
    }
  }
  return interfaces.empty() ? loopback : interfaces;
}

std::vector<Interface> GuestUplinks(const Machine& machine) {
  NetworkLinks links(machine.root());
  std::vector<Interface> uplinks;
  for (const std::string& name : links.GuestUplinks()) {
    std::optional<Interface> interface = Read(machine, links, name);
    if (interface && uplinks.size() < kMaxInterfaces) uplinks.push_back(std::move(*interface));
  }
  return uplinks;
}

}  // namespace vexa::machine
