#include "host/machine/network_links.h"

#include <linux/ethtool.h>
#include <linux/sockios.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <cstring>
#include <filesystem>
#include <string_view>
#include <system_error>
#include <utility>

#include "host/base/files.h"
#include "host/machine/interfaces.h"

namespace vexa::machine {
namespace {

namespace fs = std::filesystem;

constexpr std::size_t kMaxLinks = 4096;
constexpr std::size_t kMaxAttributeBytes = 4096;
constexpr const char* kSwitchDriver = "openvswitch";
constexpr const char* kSwitchPrefix = "ovs_";
// The devices that represent the whole switch. The ports of all its bridges are below the first one.
constexpr const char* kSwitchDatapath = "ovs-system";
constexpr const char* kUserSpaceDatapath = "ovs-netdev";

// Whether the name is safe to use in a path below /sys/class/net.
bool IsSafeName(const std::string& name) {
  return !name.empty() && name.size() < IFNAMSIZ && name != "." && name != ".." &&
         name.find('/') == std::string::npos && name.find('\0') == std::string::npos;
}

bool IsFolder(const std::string& path) {
  std::error_code error;
  return fs::is_directory(path, error);
}

bool PathExists(const std::string& path) {
  std::error_code error;
  return fs::exists(fs::symlink_status(path, error));
}

std::vector<std::string> NamesIn(const std::string& folder) {
  std::vector<std::string> names;
  std::error_code error;
  for (fs::directory_iterator entry(folder, error), end; !error && entry != end; entry.increment(error)) {
    if (names.size() == kMaxLinks) break;
    names.push_back(entry->path().filename().string());
  }
  std::ranges::sort(names);
  return names;
}

// The first line of a file; "" when it cannot be read.
std::string ReadAttribute(const std::string& path) {
  const Result<std::string> text = ReadFile(path, kMaxAttributeBytes);
  return text ? text->substr(0, text->find('\n')) : std::string();
}

}  // namespace

std::string SystemDriver(const std::string& interface) {
  if (!IsSafeName(interface)) return "";
  const int fd = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return "";
  ethtool_drvinfo info{};
  info.cmd = ETHTOOL_GDRVINFO;
  ifreq request{};
  std::memcpy(request.ifr_name, interface.data(), interface.size());
  request.ifr_data = reinterpret_cast<char*>(&info);
  const bool is_known = ::ioctl(fd, SIOCETHTOOL, &request) == 0;
  ::close(fd);
  return is_known ? std::string(info.driver, ::strnlen(info.driver, sizeof info.driver)) : std::string();
}

NetworkLinks::NetworkLinks(std::string root, DriverReader driver_of)
    : root_(std::move(root)),
      driver_of_(driver_of       ? std::move(driver_of)
                 : root_.empty() ? DriverReader(SystemDriver)
                                 : [](const std::string&) { return std::string(); }) {}

bool NetworkLinks::HasFolder(const std::string& name, const char* folder) const {
  return IsSafeName(name) && IsFolder(FolderOf(name) + "/" + folder);
}

bool NetworkLinks::Exists(const std::string& name) const { return IsSafeName(name) && IsFolder(FolderOf(name)); }

bool NetworkLinks::IsHardware(const std::string& name) const {
  return IsSafeName(name) && PathExists(FolderOf(name) + "/device");
}

bool NetworkLinks::IsAdminUp(const std::string& name) const {
  if (!Exists(name)) return false;
  std::string flags = ReadAttribute(FolderOf(name) + "/flags");
  if (flags.starts_with("0x")) flags.erase(0, 2);
  unsigned bits = 0;
  std::from_chars(flags.data(), flags.data() + flags.size(), bits, 16);
  return (bits & IFF_UP) != 0;
}

bool NetworkLinks::HasCarrier(const std::string& name) const {
  if (!Exists(name)) return false;
  // Unreadable while the interface is administratively down.
  const std::string carrier = ReadAttribute(FolderOf(name) + "/carrier");
  return carrier.empty() ? ReadAttribute(FolderOf(name) + "/operstate") == "up" : carrier == "1";
}

std::vector<std::string> NetworkLinks::LowerOf(const std::string& name) const {
  constexpr std::string_view kLower = "lower_";
  std::vector<std::string> lower;
  if (!IsSafeName(name)) return lower;
  for (const std::string& entry : NamesIn(FolderOf(name))) {
    if (!entry.starts_with(kLower)) continue;
    if (IsSafeName(entry.substr(kLower.size()))) lower.push_back(entry.substr(kLower.size()));
  }
  return lower;
}

std::string NetworkLinks::MasterOf(const std::string& name) const {
  if (!IsSafeName(name)) return "";
  std::error_code error;
  const fs::path master = fs::read_symlink(FolderOf(name) + "/master", error);
  return error ? std::string() : master.filename().string();
}

const std::optional<SwitchBridges>& NetworkLinks::Switch() {
  if (!is_switch_read_) switch_ = ReadSwitch(root_);
  is_switch_read_ = true;
  return switch_;
}

// A name with the switch's prefix is the last resort: if the datapath is in user space and the database cannot be read,
// nothing else identifies a bridge of the switch.
BridgeKind NetworkLinks::KindOf(const std::string& name) {
  if (!Exists(name)) return BridgeKind::kNone;
  if (HasFolder(name, "bridge")) return BridgeKind::kLinux;
  // Hardware may have any name, so it is recognized by its device.
  if (IsHardware(name) || name == kSwitchDatapath || name == kUserSpaceDatapath) {
    return BridgeKind::kNone;
  }
  const bool has_switch_name = name.starts_with(kSwitchPrefix);
  const bool has_driver = !has_switch_name && driver_of_(name) == kSwitchDriver;
  if (const auto& bridges = Switch()) {
    if (bridges->contains(name)) return BridgeKind::kSwitch;
    // Not in the database, but with the switch's driver: an internal port, which is an interface of the host.
    if (has_driver) return BridgeKind::kNone;
  }
  return has_switch_name || has_driver ? BridgeKind::kSwitch : BridgeKind::kNone;
}

std::optional<bool> NetworkLinks::IsSwitchPort(const std::string& bridge, const std::string& port) {
  const auto& bridges = Switch();
  if (!bridges) return std::nullopt;
  const auto found = bridges->find(bridge);
  return found != bridges->end() && std::ranges::find(found->second, port, &SwitchPort::name) != found->second.end();
}

bool NetworkLinks::IsAnySwitchPort(const std::string& port) {
  if (MasterOf(port) == kSwitchDatapath) return true;
  const auto& bridges = Switch();
  return bridges && std::ranges::any_of(*bridges, [&](const auto& bridge) {
           return std::ranges::find(bridge.second, port, &SwitchPort::name) != bridge.second.end();
         });
}

bool NetworkLinks::IsPhysical(const std::string& name) { return IsPhysical(name, 0); }

bool NetworkLinks::IsPhysical(const std::string& name, int depth) {
  if (!Exists(name) || depth == kMaxStackedInterfaces) return false;
  if (IsHardware(name) || HasFolder(name, "bonding")) return true;
  if (KindOf(name) == BridgeKind::kSwitch) {
    return std::ranges::any_of(PortsOf(name, depth + 1), &PortInfo::is_physical);
  }
  return std::ranges::any_of(LowerOf(name), [&](const std::string& lower) { return IsPhysical(lower, depth + 1); });
}

void NetworkLinks::AddKernelPort(const std::string& bridge, const std::string& port, int depth,
                                 std::vector<PortInfo>& ports) {
  const bool is_tap = PathExists(FolderOf(port) + "/tun_flags");
  if (port == bridge || is_tap || !Exists(port)) return;
  ports.push_back({{port, HasLink(port, depth + 1)}, IsPhysical(port, depth + 1)});
}

void NetworkLinks::AddSwitchPorts(const std::string& bridge, std::set<std::string>& visited, int depth,
                                  std::vector<PortInfo>& ports) {
  const auto entry = Switch()->find(bridge);
  if (entry == Switch()->end() || !visited.insert(bridge).second) return;
  for (const SwitchPort& port : entry->second) {
    const std::string& type = port.type;
    if (port.name == bridge || type == "internal" || type == "tap" || type.starts_with("dpdkvhost")) continue;
    if (type.empty() || type == "system") {
      AddKernelPort(bridge, port.name, depth, ports);
    } else if (type != "patch") {
      ports.push_back({{port.name, port.has_link}, type.starts_with("dpdk") || type == "afxdp"});
    } else {
      for (const auto& [other, other_ports] : *Switch()) {
        if (std::ranges::find(other_ports, port.peer, &SwitchPort::name) == other_ports.end()) continue;
        AddSwitchPorts(other, visited, depth, ports);
      }
    }
  }
}

std::vector<NetworkLinks::PortInfo> NetworkLinks::PortsOf(const std::string& bridge, int depth) {
  std::vector<PortInfo> ports;
  if (depth >= kMaxStackedInterfaces) return ports;
  const BridgeKind kind = KindOf(bridge);
  if (kind == BridgeKind::kSwitch && Switch()) {
    std::set<std::string> visited;
    AddSwitchPorts(bridge, visited, depth, ports);
  } else if (kind != BridgeKind::kNone) {
    const std::string port_parent = kind == BridgeKind::kLinux ? bridge : kSwitchDatapath;
    for (const std::string& port : LowerOf(port_parent)) AddKernelPort(bridge, port, depth, ports);
  }
  return ports;
}

std::vector<Uplink> NetworkLinks::UplinksOf(const std::string& bridge) { return UplinksOf(bridge, 0); }

std::vector<Uplink> NetworkLinks::UplinksOf(const std::string& bridge, int depth) {
  const std::vector<PortInfo> ports = PortsOf(bridge, depth);
  const bool has_physical = std::ranges::any_of(ports, &PortInfo::is_physical);
  std::vector<Uplink> uplinks;
  for (const PortInfo& port : ports) {
    if (port.is_physical || !has_physical) uplinks.push_back(port.uplink);
  }
  return uplinks;
}

bool NetworkLinks::HasLink(const std::string& name) { return HasLink(name, 0); }

bool NetworkLinks::HasLink(const std::string& name, int depth) {
  if (depth >= kMaxStackedInterfaces) return false;
  if (KindOf(name) != BridgeKind::kNone) return std::ranges::any_of(UplinksOf(name, depth), &Uplink::has_link);
  if (!HasCarrier(name)) return false;
  // A VLAN or macvlan has the carrier of the interface below it; if that is a bridge, this includes its guests.
  if (HasFolder(name, "bonding")) return true;
  return std::ranges::all_of(LowerOf(name), [&](const std::string& lower) {
    return KindOf(lower) == BridgeKind::kNone || HasLink(lower, depth + 1);
  });
}

std::vector<std::string> NetworkLinks::GuestUplinks() {
  std::set<std::string> uplinks;
  for (const std::string& name : NamesIn(root_ + "/sys/class/net")) {
    if (KindOf(name) != BridgeKind::kNone) {
      if (!UplinksOf(name).empty()) uplinks.insert(name);
    } else if (HasFolder(name, "macvtap")) {
      for (std::string& lower : LowerOf(name)) uplinks.insert(std::move(lower));
    }
  }
  return {uplinks.begin(), uplinks.end()};
}

}  // namespace vexa::machine
