#include "host/machine/bridge_files.h"

#include <fmt/format.h>
#include <unistd.h>

#include <cerrno>
#include <string_view>

#include "host/base/files.h"
#include "host/base/interface_name.h"

namespace vexa::machine {
namespace {

constexpr std::size_t kMaxFileBytes = 65'536;
constexpr mode_t kMode = 0644;  // not secret, and systemd-networkd has a user of its own
constexpr std::string_view kBridgeStem = "10-vexa-bridge-";
constexpr std::string_view kPortStem = "10-vexa-port-";
constexpr std::string_view kNetdev = ".netdev";
constexpr std::string_view kIpv4Leases = "DHCP=ipv4\n";
constexpr std::string_view kIpv6Leases = "IPv6AcceptRA=yes\n";

std::string FirstLine(const BridgeMark& mark) { return "# " + BridgeAlias(mark) + "\n"; }

// "": there is no such file.
std::string Content(const std::string& path) {
  Result<std::string> text = ReadFile(path, kMaxFileBytes);
  return text ? std::move(*text) : std::string();
}

Status WriteChanged(const std::string& path, const std::string& text) {
  return Content(path) == text ? Status() : WriteFileAtomically(path, text, kMode);
}

// Returns what follows `begin` on the first line that starts with it; empty if no line does.
std::string LineAfter(std::string_view text, std::string_view begin) {
  std::string found;
  ForEachLine(text, [&](std::string_view line) {
    if (!line.starts_with(begin)) return true;
    found = line.substr(begin.size());
    return false;
  });
  return found;
}

// The mark in the first line. Not set: the file is not ours.
std::optional<BridgeMark> MarkIn(std::string_view text) {
  const std::string_view first = text.substr(0, text.find('\n'));
  return first.starts_with("# ") ? ParseBridgeAlias(first.substr(2)) : std::nullopt;
}

}  // namespace

BridgeFiles::BridgeFiles(const std::string& folder, const std::string& bridge)
    : folder_(folder),
      bridge_(bridge),
      netdev_(fmt::format("{}/{}{}{}", folder, kBridgeStem, bridge, kNetdev)),
      network_(fmt::format("{}/{}{}.network", folder, kBridgeStem, bridge)),
      port_(fmt::format("{}/{}{}.network", folder, kPortStem, bridge)) {}

std::optional<BridgeRequest> BridgeFiles::Read() const {
  const std::string text = Content(netdev_);
  const auto mark = MarkIn(text);
  if (!mark) return std::nullopt;
  BridgeRequest request;
  request.network_id = mark->network_id;
  request.host_id = mark->host_id;
  request.bridge = bridge_;
  request.uplink = LineAfter(text, "# uplink ");
  if (!IsInterfaceName(request.uplink)) request.uplink.clear();
  request.vlan_id = static_cast<int>(ParseUnsigned(LineAfter(text, "# vlan ")).value_or(0));
  return request;
}

std::string BridgeFiles::Foreign(const BridgeMark& mark) const {
  for (const std::string& path : {netdev_, network_, port_}) {
    if (::access(path.c_str(), F_OK) != 0) continue;
    if (!Content(path).starts_with(FirstLine(mark))) return path;
  }
  return "";
}

// systemd-networkd-wait-online waits neither for an interface without addresses nor for a port.
Status BridgeFiles::Write(const BridgeRequest& request, const std::string& mac, const BridgeAddresses& all,
                          bool is_moving) const {
  const std::string mark = FirstLine({request.network_id, request.host_id});
  constexpr std::string_view kNotAwaited = "\n[Link]\nRequiredForOnline=no\n";
  if (Status made = CreateDirectories(folder_, 0755); !made) return made;
  std::string netdev = fmt::format("{}# uplink {}\n", mark, request.uplink);
  if (request.vlan_id != 0) netdev += fmt::format("# vlan {}\n", request.vlan_id);
  netdev += fmt::format("\n[NetDev]\nName={}\nKind=bridge\n", request.bridge);
  if (!mac.empty()) netdev += fmt::format("MACAddress={}\n", mac);
  if (Status written = WriteChanged(netdev_, netdev); !written) return written;
  const std::string before = Content(network_);
  if (before.empty() || is_moving) {
    std::string lines;
    if (all.has_ipv4_leases || before.find(kIpv4Leases) != std::string::npos) lines += kIpv4Leases;
    if (all.has_ipv6_leases || before.find(kIpv6Leases) != std::string::npos) lines += kIpv6Leases;
    lines += all.lines;
    const std::string network =
        fmt::format("{}\n[Match]\nName={}\n{}\n[Network]\nConfigureWithoutCarrier=yes\n{}", mark, request.bridge,
                    lines.empty() ? kNotAwaited : "", lines.empty() ? "LinkLocalAddressing=no\n" : lines);
    if (Status written = WriteChanged(network_, network); !written) return written;
  }
  if (request.vlan_id != 0) return {};  // the uplink keeps its own configuration, and the host makes the VLAN
  const std::string port = fmt::format("{}\n[Match]\nName={}\n{}\n[Network]\nBridge={}\nLinkLocalAddressing=no\n", mark,
                                       request.uplink, kNotAwaited, request.bridge);
  return WriteChanged(port_, port);
}

Status BridgeFiles::Remove() const {
  for (const std::string& path : {port_, network_, netdev_}) {
    if (::unlink(path.c_str()) == 0 || errno == ENOENT) continue;
    return SystemError(ErrorCode::kInternal, fmt::format("Cannot remove '{}'", path), errno);
  }
  return {};
}

std::map<std::string, BridgeMark> BridgesWithFiles(const Machine& machine) {
  std::map<std::string, BridgeMark> bridges;
  for (const std::string& name : machine.Names(kNetworkdFolder)) {
    if (!name.starts_with(kBridgeStem) || !name.ends_with(kNetdev)) continue;
    const std::string bridge = name.substr(kBridgeStem.size(), name.size() - kBridgeStem.size() - kNetdev.size());
    const auto mark = MarkIn(machine.Read(fmt::format("{}/{}", kNetworkdFolder, name)).value_or(""));
    if (IsInterfaceName(bridge) && mark) bridges.emplace(bridge, *mark);
  }
  return bridges;
}

}  // namespace vexa::machine
