#include "host/machine/kernel_bridges.h"

#include <fmt/format.h>
#include <linux/capability.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <utility>

#include "host/machine/bridge_addresses.h"
#include "host/machine/bridge_files.h"
#include "host/machine/netlink.h"

namespace vexa::machine {
namespace {

constexpr unsigned kEthernet = 1;  // ARPHRD_ETHER; its header excludes those of libnl

Error Conflict(std::string sentence) { return Error(ErrorCode::kConflict, std::move(sentence)); }

std::string_view AliasOf(rtnl_link* link) {
  const char* const alias = rtnl_link_get_ifalias(link);
  return alias != nullptr ? alias : "";
}

bool IsBridge(rtnl_link* link) {
  const char* const type = rtnl_link_get_type(link);
  return type != nullptr && std::string_view(type) == "bridge";
}

bool IsSame(rtnl_link* one, rtnl_link* other) {
  return other != nullptr && rtnl_link_get_ifindex(one) == rtnl_link_get_ifindex(other);
}

bool IsPortOf(rtnl_link* link, rtnl_link* bridge) {
  return bridge != nullptr && rtnl_link_get_master(link) == rtnl_link_get_ifindex(bridge);
}

// What a request for a bridge meets.
struct Situation {
  const Netlink& netlink;
  const BridgeRequest& request;
  const BridgeFiles& files;
  LinkHandle bridge;  // null if no interface has the name

  BridgeMark Mark() const { return {request.network_id, request.host_id}; }
  std::string Alias() const { return BridgeAlias(Mark()); }
  bool IsMarked(const BridgeRequest& written) const {
    return written.network_id == request.network_id && written.host_id == request.host_id;
  }
  // Whether this system has made the bridge for the network. A new one has no alias yet; the files name it.
  bool IsOwn() const {
    const std::string_view alias = AliasOf(bridge.get());
    if (!alias.empty()) return alias == Alias();
    const auto written = files.Read();
    return written && IsMarked(*written);
  }
};

// Returns the ports of the bridge that this system has not put there, for a sentence; empty if all are its own.
Result<std::string> OtherPorts(const Situation& at, const std::string& uplink) {
  const auto ports = at.netlink.PortsOf(at.bridge.get());
  if (!ports) return ports.error();
  std::string others;
  for (const LinkHandle& port : *ports) {
    const std::string name = rtnl_link_get_name(port.get());
    if (name == uplink || AliasOf(port.get()) == at.Alias()) continue;
    others += fmt::format("{}'{}'", others.empty() ? "" : ", ", name);
  }
  return others;
}

// Gives the addresses of the bridge back to its uplink; null: it has none.
Status GiveBack(const Situation& at, rtnl_link* uplink) {
  const Result<Configured> configured = at.netlink.ConfigurationOf(at.bridge.get());
  if (!configured) return configured.error();
  if (configured->empty()) return {};
  const std::string& bridge = at.request.bridge;
  if (configured->has_other_routes) {
    return Conflict(fmt::format("The bridge '{}' has routes that cannot be moved: remove them", bridge));
  }
  if (uplink == nullptr) {
    return Conflict(
        fmt::format("The bridge '{}' has addresses, and no uplink that could take them: remove them", bridge));
  }
  if (Status up = at.netlink.SetUp(uplink); !up) return up;
  return at.netlink.Move(*configured, at.bridge.get(), uplink);
}

Status FreeUplink(const Situation& at, const BridgeRequest& written) {
  const bool has_uplink = !written.uplink.empty() && written.vlan_id == 0;
  const Result<LinkHandle> uplink = has_uplink ? at.netlink.Find(written.uplink) : LinkHandle();
  if (!uplink) return uplink.error();
  if (Status given = GiveBack(at, uplink->get()); !given) return given;
  const bool is_port = *uplink && IsPortOf(uplink->get(), at.bridge.get());
  return is_port ? at.netlink.SetBridge(uplink->get(), nullptr) : Status();
}

// The alias names what is left when the process is killed between two steps: files go first, so that systemd-networkd
// does not make the bridge again.
Status Remove(Situation& at) {
  const BridgeRequest written = at.files.Read().value_or(BridgeRequest());
  if (at.bridge) {
    const Result<std::string> others = OtherPorts(at, written.uplink);
    if (!others) return others.error();
    if (!others->empty()) {
      return Error(ErrorCode::kBusy, fmt::format("The bridge '{}' has other ports: {}", at.request.bridge, *others));
    }
    if (Status marked = at.netlink.SetAlias(at.bridge.get(), at.Alias()); !marked) return marked;
    if (Status freed = FreeUplink(at, written); !freed) return freed;
  }
  if (at.IsMarked(written)) {
    if (Status removed = at.files.Remove(); !removed) return removed;
  }
  // The bridge, and the VLAN, whatever its tag was.
  const Result<std::vector<LinkHandle>> own = at.netlink.FindByAlias(at.Alias());
  if (!own) return own.error();
  for (const LinkHandle& link : *own) {
    const bool is_other_bridge =
        IsBridge(link.get()) && !IsSame(link.get(), at.bridge.get());  // somebody has renamed it
    if (is_other_bridge) continue;
    if (Status removed = at.netlink.Delete(link.get()); !removed) return removed;
  }
  at.bridge.reset();
  return {};
}

// Makes one bridge.
class Making {
 public:
  explicit Making(Situation situation) : at_(std::move(situation)), request_(at_.request), netlink_(at_.netlink) {}

  Status Run() {
    Result<LinkHandle> uplink = netlink_.Find(request_.uplink);
    if (!uplink) return uplink.error();
    uplink_ = std::move(*uplink);
    if (!uplink_) return Error(ErrorCode::kNotFound, fmt::format("The host has no interface '{}'", request_.uplink));
    if (at_.bridge && !IsBridge(at_.bridge.get())) {
      return Conflict(fmt::format("The interface '{}' is not a bridge", request_.bridge));
    }
    if (at_.bridge && !at_.IsOwn()) {
      if (request_.vlan_id == 0 && IsPortOf(uplink_.get(), at_.bridge.get())) return {};
      return Conflict(fmt::format("The bridge '{}' was not made by this system, and '{}' is not one of its ports",
                                  request_.bridge, request_.vlan_id == 0 ? request_.uplink : VlanInterface(request_)));
    }
    const std::string foreign = at_.files.Foreign(at_.Mark());
    if (!foreign.empty()) return Conflict(fmt::format("The file '{}' was not made by this system", foreign));
    if (Status checked = CheckUplink(); !checked) return checked;
    if (Status replaced = RemoveFormer(); !replaced) return replaced;
    is_new_ = !at_.bridge;
    Status made = WriteFiles();
    if (made) made = Make();
    if (!made) Undo();
    return made;
  }

 private:
  Status CheckUplink() {
    if (rtnl_link_get_arptype(uplink_.get()) != kEthernet) {
      return Conflict(fmt::format("The interface '{}' is not an Ethernet interface", request_.uplink));
    }
    if (request_.vlan_id != 0) return {};
    if (rtnl_link_get_master(uplink_.get()) != 0 && !IsPortOf(uplink_.get(), at_.bridge.get())) {
      return Conflict(fmt::format("The interface '{}' is a port of another bridge", request_.uplink));
    }
    Result<Configured> configured = netlink_.ConfigurationOf(uplink_.get());
    if (!configured) return configured.error();
    if (!configured->empty() && !request_.move_addresses) {
      return Error(ErrorCode::kDenied,
                   fmt::format("The interface '{}' has addresses or routes, over which this machine would no longer be "
                               "reached: let the bridge take them over (--move-addresses on), or remove them",
                               request_.uplink));
    }
    if (configured->has_other_routes) {
      return Error(ErrorCode::kDenied,
                   fmt::format("The interface '{}' has routes in other tables or over several interfaces, which cannot "
                               "be moved: configure the bridge by hand",
                               request_.uplink));
    }
    configured_ = std::move(*configured);
    return {};
  }

  // A bridge with another uplink or tag, from before the network was edited, is made again: two uplinks on one bridge
  // would be a loop.
  Status RemoveFormer() {
    if (!at_.bridge) return {};
    const auto written = at_.files.Read();
    if (!written) {
      // Somebody has removed the files.
      const bool is_complete = request_.vlan_id == 0 && IsPortOf(uplink_.get(), at_.bridge.get());
      return is_complete ? Status() : Remove(at_);
    }
    const bool is_former = written->uplink != request_.uplink || written->vlan_id != request_.vlan_id;
    return is_former ? Remove(at_) : Status();
  }

  Status WriteFiles() {
    Configured taken_over;
    if (at_.bridge) {
      // A process that was killed has moved a part.
      Result<Configured> configured = netlink_.ConfigurationOf(at_.bridge.get());
      if (!configured) return configured.error();
      taken_over = std::move(*configured);
    }
    const std::string mac = request_.vlan_id == 0 ? AddressText(rtnl_link_get_addr(uplink_.get())) : "";
    return at_.files.Write(request_, mac, DescribeAddresses(configured_, taken_over), !configured_.empty());
  }

  Status Make() {
    if (is_new_) {
      // With the uplink's hardware address, others reach this machine as before.
      rtnl_link* const like = request_.vlan_id == 0 ? uplink_.get() : nullptr;
      if (Status added = netlink_.AddBridge(request_.bridge, like); !added) return added;
      has_new_bridge_ = true;
      if (Status found = FindNew(request_.bridge, at_.bridge); !found) return found;
    }
    if (Status marked = netlink_.SetAlias(at_.bridge.get(), at_.Alias()); !marked) return marked;
    rtnl_link* port = uplink_.get();
    if (request_.vlan_id != 0) {
      if (Status made = MakeVlan(); !made) return made;
      port = vlan_.get();
    }
    for (rtnl_link* link : {at_.bridge.get(), uplink_.get(), port}) {
      if (Status up = netlink_.SetUp(link); !up) return up;
    }
    // The addresses come first: while the port is not on the bridge, the next attempt knows that there is more to do.
    if (Status moved = netlink_.Move(configured_, uplink_.get(), at_.bridge.get()); !moved) return moved;
    return IsPortOf(port, at_.bridge.get()) ? Status() : netlink_.SetBridge(port, at_.bridge.get());
  }

  Status FindNew(const std::string& name, LinkHandle& link) {
    Result<LinkHandle> found = netlink_.Find(name);
    if (!found) return found.error();
    link = std::move(*found);
    if (!link) return Error(ErrorCode::kInternal, fmt::format("The new interface '{}' is gone again", name));
    return {};
  }

  Status MakeVlan() {
    const std::string name = VlanInterface(request_);
    Result<LinkHandle> found = netlink_.Find(name);
    if (!found) return found.error();
    vlan_ = std::move(*found);
    if (!vlan_) {
      if (Status added = netlink_.AddVlan(name, uplink_.get(), request_.vlan_id); !added) return added;
      has_new_vlan_ = true;
      if (Status made = FindNew(name, vlan_); !made) return made;
    }
    // One without an alias was made before a kill.
    const std::string_view alias = AliasOf(vlan_.get());
    const bool is_own = (alias.empty() || alias == at_.Alias()) &&
                        rtnl_link_get_link(vlan_.get()) == rtnl_link_get_ifindex(uplink_.get());
    if (!is_own) return Conflict(fmt::format("The interface '{}' was not made by this system", name));
    return netlink_.SetAlias(vlan_.get(), at_.Alias());
  }

  // What cannot be undone either is left; the next attempt continues there. A socket whose request has failed does not
  // recognize the answers to the next ones.
  void Undo() const {
    const Result<Netlink> netlink = Netlink::Open();
    if (!netlink) return;
    if (!configured_.empty() && at_.bridge) {
      if (!netlink->Move(configured_, at_.bridge.get(), uplink_.get())) return;
    }
    if (has_new_vlan_ && !DeleteNew(*netlink, VlanInterface(request_))) return;
    if (!is_new_) return;
    if (has_new_bridge_ && !DeleteNew(*netlink, request_.bridge)) return;
    (void)at_.files.Remove();
  }
  static Status DeleteNew(const Netlink& netlink, const std::string& name) {
    const Result<LinkHandle> link = netlink.Find(name);
    if (!link) return link.error();
    return *link ? netlink.Delete(link->get()) : Status();
  }

  Situation at_;
  const BridgeRequest& request_;
  const Netlink& netlink_;
  LinkHandle uplink_;
  LinkHandle vlan_;
  Configured configured_;  // of the uplink
  bool is_new_ = false;
  bool has_new_bridge_ = false;
  bool has_new_vlan_ = false;
};

// Calls `act` with the situation on this machine.
template <class Act>
Status With(const BridgeRequest& request, const std::string& folder, Act act) {
  if (Status checked = CheckBridgeRequest(request); !checked) return checked;
  const Result<Netlink> netlink = Netlink::Open();
  if (!netlink) return netlink.error();
  const BridgeFiles files(folder, request.bridge);
  Result<LinkHandle> bridge = netlink->Find(request.bridge);
  if (!bridge) return bridge.error();
  return act(Situation{*netlink, request, files, std::move(*bridge)});
}

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
  if (request.uplink.empty()) return Error(ErrorCode::kInvalid, "The bridge has no uplink");
  return With(request, folder, [](Situation situation) { return Making(std::move(situation)).Run(); });
}

Status RemoveKernelBridge(const BridgeRequest& request, const std::string& folder) {
  return With(request, folder, [](Situation situation) {
    if (situation.bridge && (!IsBridge(situation.bridge.get()) || !situation.IsOwn())) {
      return Status(Conflict(fmt::format("The interface '{}' was not made by this system", situation.request.bridge)));
    }
    return Remove(situation);
  });
}

}  // namespace vexa::machine
