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

namespace vexa::services {
namespace {

constexpr std::size_t kMaxInterfaces = 1024;
constexpr std::uint64_t kMaxNumber = 0x7FFFFFFF;

std::string FolderOf(const std::string& name) { return "/sys/class/net/" + name; }

int SmallNumber(const Machine& machine, const std::string& path) {
  // "-1" and, on older kernels, its unsigned form mean "unknown".
  const std::uint64_t number = machine.ReadNumber(path).value_or(0);
  return number > kMaxNumber ? 0 : static_cast<int>(number);
}

// A bridge also has the carrier of its guests, which does not connect it to anything outside.
bool IsConnected(guests::NetworkLinks& links, const std::string& name) {
  const bool is_closed = links.KindOf(name) != guests::BridgeKind::kNone && links.UplinksOf(name).empty();
  return is_closed ? links.HasCarrier(name) : links.HasLink(name);
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

std::string TypeOf(const Machine& machine, guests::NetworkLinks& links, const std::string& name) {
  constexpr std::uint64_t kLoopback = 772;  // ARPHRD_LOOPBACK
  const std::string folder = FolderOf(name);
  if (machine.IsFolder(folder + "/bonding")) return "bond";
  if (links.KindOf(name) != guests::BridgeKind::kNone || name.starts_with("ovs_")) return "bridge";
  if (machine.IsFolder(folder + "/wireless") || machine.IsFolder(folder + "/phy80211")) return "wificlient";
  if (machine.IsFolder(folder + "/device")) return "ethernet";
  if (IsVlan(machine, folder)) return "vlan";
  return machine.ReadNumber(folder + "/type") == kLoopback ? "loopback" : "virtual";
}

// Whether frames of the interface leave the machine. The kernel may show nothing but the name of a virtual switch.
bool IsHostInterface(guests::NetworkLinks& links, const Interface& found) {
  if (found.name.starts_with("ovs_")) return true;
  const bool may_lead_out = found.type == "ethernet" || found.type == "wificlient" || found.type == "bond" ||
                            found.type == "bridge" || found.type == "vlan";
  return may_lead_out && links.IsPhysical(found.name);
}

std::optional<Interface> Read(const Machine& machine, guests::NetworkLinks& links, const std::string& name) {
  const std::string folder = FolderOf(name);
  if (!IsInterfaceName(name) || !machine.IsFolder(folder)) return std::nullopt;
  Interface found;
  found.name = name;
  found.type = TypeOf(machine, links, name);
  found.mac = machine.ReadLine(folder + "/address");
  found.duplex = machine.ReadLine(folder + "/duplex");
  if (found.duplex.empty()) found.duplex = "unknown";
  found.speed = SmallNumber(machine, folder + "/speed");
  found.mtu = SmallNumber(machine, folder + "/mtu");
  found.connected = IsConnected(links, name);
  const std::string slaves = machine.ReadLine(folder + "/bonding/slaves");
  for (const std::string_view slave : Fields(slaves)) found.slaves.emplace_back(slave);
  return found;
}

std::string TextOf(const sockaddr* address) {
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
    addresses.push_back(
        {entry->ifa_name, TextOf(entry->ifa_addr), TextOf(entry->ifa_netmask), entry->ifa_addr->sa_family == AF_INET6});
  }
  return addresses;
}

bool IsInterfaceName(const std::string& name) {
  if (name.empty() || name.size() >= IFNAMSIZ || name == "." || name == ".." || !IsValidUtf8(name)) {
    return false;
  }
  return std::ranges::none_of(name, [](char c) {
    const auto byte = static_cast<unsigned char>(c);
    return c == '/' || c == ':' || byte <= ' ' || byte == 0x7F;
  });
}

std::optional<Interface> ReadInterface(const Machine& machine, const std::string& name) {
  guests::NetworkLinks links(machine.root());
  return Read(machine, links, name);
}

std::vector<Interface> HostInterfaces(const Machine& machine) {
  guests::NetworkLinks links(machine.root());
  std::vector<Interface> interfaces;
  std::vector<Interface> loopback;
  for (const std::string& name : machine.Names("/sys/class/net")) {
    std::optional<Interface> found = Read(machine, links, name);
    if (!found || interfaces.size() == kMaxInterfaces) continue;
    if (IsHostInterface(links, *found)) {
      interfaces.push_back(std::move(*found));
    } else if (found->type == "loopback") {
      loopback.push_back(std::move(*found));
    }
  }
  return interfaces.empty() ? loopback : interfaces;
}

std::vector<Interface> GuestPorts(const Machine& machine) {
  guests::NetworkLinks links(machine.root());
  std::vector<Interface> ports;
  for (const std::string& name : links.GuestPorts()) {
    std::optional<Interface> found = Read(machine, links, name);
    if (found && ports.size() < kMaxInterfaces) ports.push_back(std::move(*found));
  }
  return ports;
}

}  // namespace vexa::services
