#include "host/services/interfaces.h"

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

namespace vexa::services {
namespace {

constexpr std::size_t kMaxInterfaces = 1024;
constexpr int kMaxStack = 8;  // a VLAN on a bridge on a bond on …
constexpr std::uint64_t kMaxNumber = 0x7FFFFFFF;

std::string FolderOf(const std::string& name) { return "/sys/class/net/" + name; }

int SmallNumber(const Machine& machine, const std::string& path) {
  // "-1" and, on older kernels, its unsigned form stand for "unknown".
  const std::uint64_t number = machine.ReadNumber(path).value_or(0);
  return number > kMaxNumber ? 0 : static_cast<int>(number);
}

bool IsConnected(const Machine& machine, const std::string& folder) {
  const std::string carrier = machine.ReadLine(folder + "/carrier");  // cannot be read while the interface is down
  return carrier.empty() ? machine.ReadLine(folder + "/operstate") == "up" : carrier == "1";
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

std::string TypeOf(const Machine& machine, const std::string& name, const std::string& folder) {
  constexpr std::uint64_t kLoopback = 772;  // ARPHRD_LOOPBACK
  if (machine.IsFolder(folder + "/bonding")) return "bond";
  if (machine.IsFolder(folder + "/bridge") || name.starts_with("ovs_")) return "bridge";
  if (machine.IsFolder(folder + "/wireless") || machine.IsFolder(folder + "/phy80211")) return "wificlient";
  if (machine.IsFolder(folder + "/device")) return "ethernet";
  if (IsVlan(machine, folder)) return "vlan";
  return machine.ReadNumber(folder + "/type") == kLoopback ? "loopback" : "virtual";
}

// Whether frames of the interface leave the machine.
bool IsHostInterface(const Machine& machine, const std::string& name, int depth) {
  constexpr std::string_view kLower = "lower_";
  const std::string folder = FolderOf(name);
  const std::string type = TypeOf(machine, name, folder);
  if (type == "ethernet" || type == "wificlient" || type == "bond" || name.starts_with("ovs_")) return true;
  if (depth == kMaxStack || (type != "bridge" && type != "vlan")) return false;
  return std::ranges::any_of(machine.Names(folder), [&](const std::string& entry) {
    const std::string lower = entry.starts_with(kLower) ? entry.substr(kLower.size()) : "";
    return IsInterfaceName(lower) && IsHostInterface(machine, lower, depth + 1);
  });
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
  const std::string folder = FolderOf(name);
  if (!IsInterfaceName(name) || !machine.IsFolder(folder)) return std::nullopt;
  Interface found;
  found.name = name;
  found.type = TypeOf(machine, name, folder);
  found.mac = machine.ReadLine(folder + "/address");
  found.duplex = machine.ReadLine(folder + "/duplex");
  if (found.duplex.empty()) found.duplex = "unknown";
  found.speed = SmallNumber(machine, folder + "/speed");
  found.mtu = SmallNumber(machine, folder + "/mtu");
  found.connected = IsConnected(machine, folder);
  const std::string slaves = machine.ReadLine(folder + "/bonding/slaves");
  for (const std::string_view slave : Fields(slaves)) found.slaves.emplace_back(slave);
  return found;
}

std::vector<Interface> HostInterfaces(const Machine& machine) {
  std::vector<Interface> interfaces;
  std::vector<Interface> loopback;
  for (const std::string& name : machine.Names("/sys/class/net")) {
    std::optional<Interface> found = ReadInterface(machine, name);
    if (!found || interfaces.size() == kMaxInterfaces) continue;
    if (IsHostInterface(machine, name, 0)) {
      interfaces.push_back(std::move(*found));
    } else if (found->type == "loopback") {
      loopback.push_back(std::move(*found));
    }
  }
  return interfaces.empty() ? loopback : interfaces;
}

}  // namespace vexa::services
