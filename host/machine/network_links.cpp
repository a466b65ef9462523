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

namespace vexa::guests {
namespace {

using services::kMaxStack;
namespace fs = std::filesystem;

constexpr std::size_t kMaxLinks = 4096;
constexpr std::size_t kMaxAttribute = 4096;
constexpr const char* kSwitchDriver = "openvswitch";
constexpr const char* kSwitchPrefix = "ovs_";
// The devices that represent the whole switch; the first has the ports of all its bridges below it.
constexpr const char* kSwitchDatapath = "ovs-system";
constexpr const char* kUserSpaceDatapath = "ovs-netdev";

// Any other name would lead to a folder that is not an interface's.
bool IsName(const std::string& name) {
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

// The first line; "" when absent.
std::string Attribute(const std::string& path) {
  const Result<std::string> text = ReadFile(path, kMaxAttribute);
  return text ? text->substr(0, text->find('\n')) : std::string();
}

}  // namespace

std::string SystemDriver(const std::string& interface) {
  if (!IsName(interface)) return "";
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
  return IsName(name) && IsFolder(FolderOf(name) + "/" + folder);
}

bool NetworkLinks::IsThere(const std::string& name) const { return IsName(name) && IsFolder(FolderOf(name)); }

bool NetworkLinks::IsHardware(const std::string& name) const {
  return IsName(name) && PathExists(FolderOf(name) + "/device");
}

bool NetworkLinks::IsSwitchedOn(const std::string& name) const {
  if (!IsThere(name)) return false;
  std::string flags = Attribute(FolderOf(name) + "/flags");
  if (flags.starts_with("0x")) flags.erase(0, 2);
  unsigned bits = 0;
  std::from_chars(flags.data(), flags.data() + flags.size(), bits, 16);
  return (bits & IFF_UP) != 0;
}

bool NetworkLinks::HasCarrier(const std::string& name) const {
  if (!IsThere(name)) return false;
  const std::string carrier = Attribute(FolderOf(name) + "/carrier");  // unreadable while the interface is switched off
  return carrier.empty() ? Attribute(FolderOf(name) + "/operstate") == "up" : carrier == "1";
}

std::vector<std::string> NetworkLinks::LowerOf(const std::string& name) const {
  constexpr std::string_view kLower = "lower_";
  std::vector<std::string> lower;
  if (!IsName(name)) return lower;
  for (const std::string& entry : NamesIn(FolderOf(name))) {
    if (entry.starts_with(kLower) && IsName(entry.substr(kLower.size()))) lower.push_back(entry.substr(kLower.size()));
  }
  return lower;
}

std::string NetworkLinks::MasterOf(const std::string& name) const {
  if (!IsName(name)) return "";
  std::error_code error;
  const fs::path master = fs::read_symlink(FolderOf(name) + "/master", error);
  return error ? std::string() : master.filename().string();
}

const std::optional<SwitchBridges>& NetworkLinks::Switch() {
  if (!is_switch_read_) switch_ = ReadSwitch(root_);
  is_switch_read_ = true;
  return switch_;
}

// The name is the last resort: with the datapath in user space, and without its database, nothing else identifies a
// bridge of the switch.
BridgeKind NetworkLinks::KindOf(const std::string& name) {
  if (!IsThere(name)) return BridgeKind::kNone;
  if (HasFolder(name, "bridge")) return BridgeKind::kLinux;
  // Hardware, which may have any name, has a device behind it.
  if (IsHardware(name) || name == kSwitchDatapath || name == kUserSpaceDatapath) {
    return BridgeKind::kNone;
  }
  const bool is_named = name.starts_with(kSwitchPrefix);
  const bool has_driver = !is_named && driver_of_(name) == kSwitchDriver;
  if (const auto& known = Switch()) {
    if (known->contains(name)) return BridgeKind::kSwitch;
    // An internal port of a bridge is an interface of the host, not a bridge.
    if (has_driver) return BridgeKind::kNone;
  }
  return is_named || has_driver ? BridgeKind::kSwitch : BridgeKind::kNone;
}

std::optional<bool> NetworkLinks::IsSwitchPort(const std::string& bridge, const std::string& port) {
  const auto& known = Switch();
  if (!known) return std::nullopt;
  const auto found = known->find(bridge);
  return found != known->end() && std::ranges::find(found->second, port, &SwitchPort::name) != found->second.end();
}

bool NetworkLinks::IsAnySwitchPort(const std::string& port) {
  if (MasterOf(port) == kSwitchDatapath) return true;
  const auto& known = Switch();
  return known && std::ranges::any_of(*known, [&](const auto& bridge) {
           return std::ranges::find(bridge.second, port, &SwitchPort::name) != bridge.second.end();
         });
}

bool NetworkLinks::IsPhysical(const std::string& name) { return IsPhysical(name, 0); }

bool NetworkLinks::IsPhysical(const std::string& name, int depth) {
  if (!IsThere(name) || depth == kMaxStack) return false;
  if (IsHardware(name) || HasFolder(name, "bonding")) return true;
  if (KindOf(name) == BridgeKind::kSwitch) {
    return std::ranges::any_of(PortsOf(name, depth + 1), &Found::is_physical);
  }
  return std::ranges::any_of(LowerOf(name), [&](const std::string& lower) { return IsPhysical(lower, depth + 1); });
}

void NetworkLinks::AddKernelPort(const std::string& bridge, const std::string& port, int depth,
                                 std::vector<Found>& found) {
  const bool is_tap = PathExists(FolderOf(port) + "/tun_flags");
  if (port == bridge || is_tap || !IsThere(port)) return;
  found.push_back({{port, HasLink(port, depth + 1)}, IsPhysical(port, depth + 1)});
}

void NetworkLinks::AddSwitchPorts(const std::string& bridge, std::set<std::string>& seen, int depth,
                                  std::vector<Found>& found) {
  const auto known = Switch()->find(bridge);
  if (known == Switch()->end() || !seen.insert(bridge).second) return;
  for (const SwitchPort& port : known->second) {
    const std::string& type = port.type;
    if (port.name == bridge || type == "internal" || type == "tap" || type.starts_with("dpdkvhost")) continue;
    if (type.empty() || type == "system") {
      AddKernelPort(bridge, port.name, depth, found);
    } else if (type != "patch") {
      found.push_back({{port.name, port.has_link}, type.starts_with("dpdk") || type == "afxdp"});
    } else {
      for (const auto& [other, ports] : *Switch()) {
        if (std::ranges::find(ports, port.peer, &SwitchPort::name) == ports.end()) continue;
        AddSwitchPorts(other, seen, depth, found);
      }
    }
  }
}

std::vector<NetworkLinks::Found> NetworkLinks::PortsOf(const std::string& bridge, int depth) {
  std::vector<Found> found;
  if (depth >= kMaxStack) return found;
  const BridgeKind kind = KindOf(bridge);
  if (kind == BridgeKind::kSwitch && Switch()) {
    std::set<std::string> seen;
    AddSwitchPorts(bridge, seen, depth, found);
  } else if (kind != BridgeKind::kNone) {
    const std::string holder = kind == BridgeKind::kLinux ? bridge : kSwitchDatapath;
    for (const std::string& port : LowerOf(holder)) AddKernelPort(bridge, port, depth, found);
  }
  return found;
}

std::vector<Uplink> NetworkLinks::UplinksOf(const std::string& bridge) { return UplinksOf(bridge, 0); }

std::vector<Uplink> NetworkLinks::UplinksOf(const std::string& bridge, int depth) {
  const std::vector<Found> found = PortsOf(bridge, depth);
  const bool has_physical = std::ranges::any_of(found, &Found::is_physical);
  std::vector<Uplink> uplinks;
  for (const Found& port : found) {
    if (port.is_physical || !has_physical) uplinks.push_back(port.uplink);
  }
  return uplinks;
}

bool NetworkLinks::HasLink(const std::string& name) { return HasLink(name, 0); }

bool NetworkLinks::HasLink(const std::string& name, int depth) {
  if (depth >= kMaxStack) return false;
  if (KindOf(name) != BridgeKind::kNone) return std::ranges::any_of(UplinksOf(name, depth), &Uplink::has_link);
  if (!HasCarrier(name)) return false;
  // A VLAN or macvlan has the carrier of the interface below it; if that is a bridge, this includes its guests.
  if (HasFolder(name, "bonding")) return true;
  return std::ranges::all_of(LowerOf(name), [&](const std::string& lower) {
    return KindOf(lower) == BridgeKind::kNone || HasLink(lower, depth + 1);
  });
}

std::vector<std::string> NetworkLinks::GuestPorts() {
  std::set<std::string> ports;
  for (const std::string& name : NamesIn(root_ + "/sys/class/net")) {
    if (KindOf(name) != BridgeKind::kNone) {
      if (!UplinksOf(name).empty()) ports.insert(name);
    } else if (HasFolder(name, "macvtap")) {
      for (std::string& lower : LowerOf(name)) ports.insert(std::move(lower));
    }
  }
  return {ports.begin(), ports.end()};
}

}  // namespace vexa::guests
