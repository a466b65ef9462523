#include "host/machine/kernel_bridges.h"

#include <fmt/format.h>
#include <linux/capability.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdint>
#include <string_view>

#include "host/base/files.h"
#include "host/base/interface_name.h"
#include "host/machine/netlink.h"

namespace vexa::machine {
namespace {

constexpr std::size_t kMaxFileBytes = 65'536;
constexpr std::string_view kUplinkLine = "# uplink ";

std::string Mark(const std::string& network_id) { return "# " + BridgeAlias(network_id) + "\n"; }

// The files for systemd-networkd.
struct Files {
  std::string netdev;
  std::string network;
  std::string uplink;
};
Files FilesOf(const std::string& bridge, const std::string& folder) {
  const std::string stem = folder + "/10-vexa-" + bridge;
  return {stem + ".netdev", stem + ".network", stem + "-uplink.network"};
}

// "": there is no such file.
std::string Content(const std::string& path) {
  Result<std::string> text = ReadFile(path, kMaxFileBytes);
  return text ? std::move(*text) : std::string();
}

bool IsMarkedFile(const Files& files, const std::string& network_id) {
  return Content(files.netdev).starts_with(Mark(network_id));
}

// The uplink that the file names; "": none.
std::string UplinkInFile(const Files& files) {
  const std::string text = Content(files.netdev);
  const std::size_t at = text.find(kUplinkLine);
  if (at == std::string::npos) return "";
  const std::size_t begin = at + kUplinkLine.size();
  const std::string name = text.substr(begin, text.find('\n', begin) - begin);
  return IsInterfaceName(name) ? name : "";
}

bool IsOwn(rtnl_link* link, const BridgeRequest& request, const Files& files) {
  const char* const alias = rtnl_link_get_ifalias(link);
  if (alias != nullptr && BridgeAlias(request.network_id) == alias) return true;
  return IsMarkedFile(files, request.network_id);
}

std::string AddressText(nl_addr* address) {
  std::array<char, 128> text{};
  return address == nullptr ? "" : nl_addr2str(address, text.data(), text.size());
}

// What the bridge has: the addresses that it takes over from its uplink, or none.
std::string NetworkFile(const BridgeRequest& request, const Configured& configured) {
  std::string text = fmt::format("{}[Match]\nName={}\n\n[Network]\nConfigureWithoutCarrier=yes\n",
                                 Mark(request.network_id), request.bridge);
  bool has_dhcp = false;
  for (const AddressHandle& address : configured.addresses) {
    const bool is_leased = rtnl_addr_get_valid_lifetime(address.get()) != UINT32_MAX;
    has_dhcp = has_dhcp || is_leased;
    if (!is_leased) text += fmt::format("Address={}\n", AddressText(rtnl_addr_get_local(address.get())));
  }
  text += has_dhcp ? "DHCP=yes\n" : "";
  if (configured.empty()) text += "LinkLocalAddressing=no\n";
  for (const RouteHandle& route : configured.routes) {
    if (has_dhcp) break;
    nl_addr* const destination = rtnl_route_get_dst(route.get());
    const bool is_default = destination == nullptr || nl_addr_get_prefixlen(destination) == 0;
    const std::string gateway = AddressText(rtnl_route_nh_get_gateway(rtnl_route_nexthop_n(route.get(), 0)));
    text += "\n[Route]\n";
    if (!is_default) text += fmt::format("Destination={}\n", AddressText(destination));
    if (!gateway.empty()) text += fmt::format("Gateway={}\n", gateway);
  }
  return text;
}

// A VLAN's uplink keeps its own configuration, so the host makes the VLAN after each start.
Status WriteFiles(const BridgeRequest& request, const Files& files, const Configured& configured) {
  constexpr mode_t kMode = 0644;
  const std::string mark = Mark(request.network_id);
  const std::string netdev =
      fmt::format("{}{}{}\n\n[NetDev]\nName={}\nKind=bridge\n", mark, kUplinkLine, request.uplink, request.bridge);
  // What was moved before is in the file already.
  const bool keeps_network = IsMarkedFile(files, request.network_id) && configured.empty();
  if (Status written = WriteFileAtomically(files.netdev, netdev, kMode); !written) return written;
  if (!keeps_network || Content(files.network).empty()) {
    if (Status written = WriteFileAtomically(files.network, NetworkFile(request, configured), kMode); !written) {
      return written;
    }
  }
  if (request.vlan_id != 0) return {};
  return WriteFileAtomically(files.uplink,
                             fmt::format("{}[Match]\nName={}\n\n[Network]\nBridge={}\nLinkLocalAddressing=no\n", mark,
                                         request.uplink, request.bridge),
                             kMode);
}

void RemoveFiles(const Files& files) {
  // The one that has the mark comes last.
  for (const std::string* file : {&files.uplink, &files.network, &files.netdev}) (void)::unlink(file->c_str());
}

Error Conflict(std::string sentence) { return Error(ErrorCode::kConflict, std::move(sentence)); }

bool IsBridge(rtnl_link* link) {
  const char* const type = rtnl_link_get_type(link);
  return type != nullptr && std::string_view(type) == "bridge";
}

// Makes one bridge.
class Making {
 public:
  Making(const Netlink& netlink, const BridgeRequest& request, Files files)
      : netlink_(netlink), request_(request), files_(std::move(files)) {}

  Status Run() {
    uplink_ = netlink_.Find(request_.uplink);
    if (!uplink_) return Error(ErrorCode::kNotFound, fmt::format("The host has no interface '{}'", request_.uplink));
    bridge_ = netlink_.Find(request_.bridge);
    if (bridge_ && !IsBridge(bridge_.get())) {
      return Conflict(fmt::format("The interface '{}' is not a bridge", request_.bridge));
    }
    if (bridge_ && !IsOwn(bridge_.get(), request_, files_)) {
      if (IsPortOfBridge()) return {};
      return Conflict(fmt::format("The bridge '{}' was not made by this system, and '{}' is not one of its ports",
                                  request_.bridge, request_.uplink));
    }
    if (Status checked = CheckUplink(); !checked) return checked;
    is_new_ = !bridge_;
    const std::string before = UplinkInFile(files_);
    if (!is_new_ && before != request_.uplink) former_uplink_ = before;
    if (Status written = WriteFiles(request_, files_, configured_); !written) return written;
    Status made = Make();
    if (!made) Undo();
    return made;
  }

 private:
  bool IsPortOfBridge() const {
    return bridge_ && rtnl_link_get_master(uplink_.get()) == rtnl_link_get_ifindex(bridge_.get());
  }

  Status CheckUplink() {
    if (request_.vlan_id != 0) return {};
    if (rtnl_link_get_master(uplink_.get()) != 0 && !IsPortOfBridge()) {
      return Conflict(fmt::format("The interface '{}' is a port of another bridge", request_.uplink));
    }
    Result<Configured> configured = netlink_.ConfigurationOf(uplink_.get());
    if (!configured) return configured.error();
    if (!configured->empty() && !request_.move_addresses) {
      return Error(ErrorCode::kDenied,
                   fmt::format("The interface '{}' has addresses or routes, over which this machine would no longer be "
                               "reached: let the bridge take them over (--move-addresses), or remove them",
                               request_.uplink));
    }
    configured_ = std::move(*configured);
    return {};
  }

  Status Make() {
    if (!bridge_) {
      if (Status added = netlink_.AddBridge(request_.bridge); !added) return added;
      bridge_ = netlink_.Find(request_.bridge);
      if (!bridge_) return Error(ErrorCode::kInternal, "The bridge is gone again");
    }
    if (Status marked = netlink_.SetAlias(bridge_.get(), BridgeAlias(request_.network_id)); !marked) return marked;
    rtnl_link* port = uplink_.get();
    if (request_.vlan_id != 0) {
      if (Status made = MakeVlan(); !made) return made;
      port = vlan_.get();
    }
    for (rtnl_link* link : {bridge_.get(), uplink_.get(), port}) {
      if (Status up = netlink_.SetUp(link); !up) return up;
    }
    // The addresses come first: while the port is not on the bridge, the next attempt knows that there is more to do.
    if (Status moved = netlink_.Move(configured_, uplink_.get(), bridge_.get()); !moved) return moved;
    if (rtnl_link_get_master(port) != rtnl_link_get_ifindex(bridge_.get())) {
      if (Status put = netlink_.SetBridge(port, bridge_.get()); !put) return put;
    }
    return RemoveFormerPorts(port);
  }

  // The ports of the bridge before the network was edited: another uplink, a VLAN with another tag.
  Status RemoveFormerPorts(rtnl_link* port) {
    Result<std::vector<LinkHandle>> own = netlink_.FindByAlias(BridgeAlias(request_.network_id));
    if (!own) return own.error();
    for (const LinkHandle& link : *own) {
      const int index = rtnl_link_get_ifindex(link.get());
      if (index == rtnl_link_get_ifindex(bridge_.get()) || index == rtnl_link_get_ifindex(port)) continue;
      if (Status removed = netlink_.Delete(link.get()); !removed) return removed;
    }
    const LinkHandle former = former_uplink_.empty() ? nullptr : netlink_.Find(former_uplink_);
    const bool is_port = former && rtnl_link_get_master(former.get()) == rtnl_link_get_ifindex(bridge_.get());
    return is_port ? netlink_.SetBridge(former.get(), nullptr) : Status();
  }

  Status MakeVlan() {
    const std::string name = VlanInterface(request_);
    vlan_ = netlink_.Find(name);
    if (vlan_ && rtnl_link_get_link(vlan_.get()) != rtnl_link_get_ifindex(uplink_.get())) {
      // The uplink of the network was changed.
      const char* const alias = rtnl_link_get_ifalias(vlan_.get());
      if (alias == nullptr || BridgeAlias(request_.network_id) != alias) {
        return Conflict(fmt::format("The interface '{}' was not made by this system", name));
      }
      if (Status removed = netlink_.Delete(vlan_.get()); !removed) return removed;
      vlan_.reset();
    }
    if (!vlan_) {
      if (Status added = netlink_.AddVlan(name, uplink_.get(), request_.vlan_id); !added) return added;
      has_new_vlan_ = true;
      vlan_ = netlink_.Find(name);
      if (!vlan_) return Error(ErrorCode::kInternal, "The VLAN is gone again");
    }
    return netlink_.SetAlias(vlan_.get(), BridgeAlias(request_.network_id));
  }

  // What cannot be undone either is left; the next attempt continues there.
  void Undo() {
    if (!configured_.empty() && bridge_) (void)netlink_.Move(configured_, bridge_.get(), uplink_.get());
    if (has_new_vlan_ && vlan_) (void)netlink_.Delete(vlan_.get());
    if (!is_new_) return;
    if (bridge_ && !netlink_.Delete(bridge_.get())) return;
    RemoveFiles(files_);
  }

  const Netlink& netlink_;
  const BridgeRequest& request_;
  const Files files_;
  LinkHandle uplink_;
  LinkHandle bridge_;
  LinkHandle vlan_;
  Configured configured_;      // of the uplink
  std::string former_uplink_;  // "": none, or the same
  bool is_new_ = false;
  bool has_new_vlan_ = false;
};

}  // namespace

bool MayChangeInterfaces() {
  __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
  std::array<__user_cap_data_struct, 2> data{};
  if (::syscall(SYS_capget, &header, data.data()) != 0) return false;
  return (data[0].effective & (1U << CAP_NET_ADMIN)) != 0;
}

std::string VlanInterface(const BridgeRequest& request) {
  return fmt::format("vx{}.{}", request.vlan_id, request.network_id.substr(0, 4));
}

Status MakeKernelBridge(const BridgeRequest& request, const std::string& folder) {
  if (Status checked = CheckBridgeRequest(request); !checked) return checked;
  if (request.uplink.empty()) return Error(ErrorCode::kInvalid, "The bridge has no uplink");
  const Result<Netlink> netlink = Netlink::Open();
  if (!netlink) return netlink.error();
  return Making(*netlink, request, FilesOf(request.bridge, folder)).Run();
}

Status RemoveKernelBridge(const BridgeRequest& request, const std::string& folder) {
  if (Status checked = CheckBridgeRequest(request); !checked) return checked;
  const Result<Netlink> netlink = Netlink::Open();
  if (!netlink) return netlink.error();
  const Files files = FilesOf(request.bridge, folder);
  const LinkHandle bridge = netlink->Find(request.bridge);
  if (bridge && (!IsBridge(bridge.get()) || !IsOwn(bridge.get(), request, files))) {
    return Conflict(fmt::format("The interface '{}' was not made by this system", request.bridge));
  }
  if (bridge) {
    const std::string uplink_name = UplinkInFile(files);
    const LinkHandle uplink = uplink_name.empty() ? nullptr : netlink->Find(uplink_name);
    const bool is_port = uplink && rtnl_link_get_master(uplink.get()) == rtnl_link_get_ifindex(bridge.get());
    if (is_port) {
      const Result<Configured> configured = netlink->ConfigurationOf(bridge.get());
      if (!configured) return configured.error();
      if (Status moved = netlink->Move(*configured, bridge.get(), uplink.get()); !moved) return moved;
    }
    if (Status removed = netlink->Delete(bridge.get()); !removed) return removed;
  }
  // The VLAN, whatever its tag was.
  const Result<std::vector<LinkHandle>> rest = netlink->FindByAlias(BridgeAlias(request.network_id));
  if (!rest) return rest.error();
  for (const LinkHandle& link : *rest) {
    if (Status removed = netlink->Delete(link.get()); !removed) return removed;
  }
  if (IsMarkedFile(files, request.network_id)) RemoveFiles(files);
  return {};
}

}  // namespace vexa::machine
