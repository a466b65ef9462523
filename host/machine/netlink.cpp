#include "host/machine/netlink.h"

#include <fmt/format.h>
#include <linux/if_addr.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <netlink/errno.h>
#include <netlink/route/link/bridge.h>
#include <netlink/route/link/vlan.h>
#include <netlink/route/nexthop.h>

#include <algorithm>
#include <utility>

namespace vexa::machine {
namespace {

// libnl's functions return 0, or a negative code.
Status Check(int result, const std::string& what) {
  if (result >= 0) return {};
  const bool is_denied = result == -NLE_PERM || result == -NLE_NOACCESS;
  return Error(is_denied ? ErrorCode::kDenied : ErrorCode::kInternal, what, nl_geterror(result));
}

std::string NameOf(rtnl_link* link) {
  const char* const name = rtnl_link_get_name(link);
  return name != nullptr ? name : "";
}

template <class Visit>
void ForEach(nl_cache* cache, Visit visit) {
  for (nl_object* object = nl_cache_get_first(cache); object != nullptr; object = nl_cache_get_next(object)) {
    visit(object);
  }
}

// Whether the route leads over the interface, and the kernel has not added it by itself.
bool IsConfiguredRoute(rtnl_route* route, int index) {
  if (rtnl_route_get_table(route) == RT_TABLE_LOCAL || rtnl_route_get_protocol(route) == RTPROT_KERNEL) return false;
  if (rtnl_route_get_type(route) != RTN_UNICAST) return false;
  for (int i = 0; i < rtnl_route_get_nnexthops(route); ++i) {
    if (rtnl_route_nh_get_ifindex(rtnl_route_nexthop_n(route, i)) == index) return true;
  }
  return false;
}

bool IsMovable(rtnl_route* route) {
  return rtnl_route_get_table(route) == RT_TABLE_MAIN && rtnl_route_get_nnexthops(route) == 1;
}

// An interface always has an IPv6 address of its link.
bool IsConfiguredAddress(rtnl_addr* address, int index) {
  const bool is_of_link = rtnl_addr_get_family(address) == AF_INET6 && rtnl_addr_get_scope(address) == RT_SCOPE_LINK;
  return rtnl_addr_get_ifindex(address) == index && !is_of_link;
}

}  // namespace

Result<Netlink> Netlink::Open() {
  SocketHandle socket(nl_socket_alloc());
  if (!socket) return Error(ErrorCode::kInternal, "Cannot make a netlink socket");
  if (Status opened = Check(nl_connect(socket.get(), NETLINK_ROUTE), "Cannot open netlink"); !opened) {
    return opened.error();
  }
  return Netlink(std::move(socket));
}

Result<LinkHandle> Netlink::Find(const std::string& name) const {
  rtnl_link* link = nullptr;
  const int result = rtnl_link_get_kernel(socket_.get(), 0, name.c_str(), &link);
  if (result == -NLE_NODEV || result == -NLE_OBJ_NOTFOUND) return LinkHandle();
  if (Status found = Check(result, fmt::format("Cannot read the interface '{}'", name)); !found) return found.error();
  return LinkHandle(link);
}

template <class Matches>
Result<std::vector<LinkHandle>> Netlink::FindAll(Matches matches) const {
  nl_cache* raw = nullptr;
  const Status read =
      Check(rtnl_link_alloc_cache(socket_.get(), AF_UNSPEC, &raw), "Cannot read the interfaces of this machine");
  if (!read) return read.error();
  const CacheHandle links(raw);
  std::vector<LinkHandle> found;
  ForEach(links.get(), [&](nl_object* object) {
    auto* const link = reinterpret_cast<rtnl_link*>(object);
    if (!matches(link)) return;
    nl_object_get(object);
    found.emplace_back(link);
  });
  return found;
}

Result<std::vector<LinkHandle>> Netlink::FindByAlias(const std::string& alias) const {
  return FindAll([&](rtnl_link* link) {
    const char* const own = rtnl_link_get_ifalias(link);
    return own != nullptr && alias == own;
  });
}

Result<std::vector<LinkHandle>> Netlink::PortsOf(rtnl_link* bridge) const {
  return FindAll([&](rtnl_link* link) { return rtnl_link_get_master(link) == rtnl_link_get_ifindex(bridge); });
}

Status Netlink::AddBridge(const std::string& name, rtnl_link* like) const {
  const LinkHandle link(rtnl_link_bridge_alloc());
  if (!link) return Error(ErrorCode::kInternal, "Out of memory");
  rtnl_link_set_name(link.get(), name.c_str());
  if (like != nullptr) rtnl_link_set_addr(link.get(), rtnl_link_get_addr(like));
  return Check(rtnl_link_add(socket_.get(), link.get(), NLM_F_CREATE | NLM_F_EXCL),
               fmt::format("Cannot make the bridge '{}'", name));
}

Status Netlink::AddVlan(const std::string& name, rtnl_link* uplink, int vlan_id) const {
  const LinkHandle link(rtnl_link_vlan_alloc());
  if (!link) return Error(ErrorCode::kInternal, "Out of memory");
  rtnl_link_set_name(link.get(), name.c_str());
  rtnl_link_set_link(link.get(), rtnl_link_get_ifindex(uplink));
  rtnl_link_vlan_set_id(link.get(), static_cast<std::uint16_t>(vlan_id));
  return Check(rtnl_link_add(socket_.get(), link.get(), NLM_F_CREATE | NLM_F_EXCL),
               fmt::format("Cannot make the VLAN {} of '{}'", vlan_id, NameOf(uplink)));
}

template <class Set>
Status Netlink::Change(rtnl_link* link, const std::string& what, Set set) const {
  const LinkHandle change(rtnl_link_alloc());
  if (!change) return Error(ErrorCode::kInternal, "Out of memory");
  rtnl_link_set_ifindex(change.get(), rtnl_link_get_ifindex(link));
  set(change.get());
  return Check(rtnl_link_change(socket_.get(), link, change.get(), 0), what);
}

Status Netlink::SetAlias(rtnl_link* link, const std::string& alias) const {
  return Change(link, fmt::format("Cannot mark the interface '{}'", NameOf(link)),
                [&](rtnl_link* change) { rtnl_link_set_ifalias(change, alias.c_str()); });
}

Status Netlink::SetUp(rtnl_link* link) const {
  return Change(link, fmt::format("Cannot switch the interface '{}' on", NameOf(link)),
                [](rtnl_link* change) { rtnl_link_set_flags(change, IFF_UP); });
}

Status Netlink::SetBridge(rtnl_link* link, rtnl_link* bridge) const {
  const int index = rtnl_link_get_ifindex(link);
  if (bridge == nullptr) {
    return Check(rtnl_link_release_ifindex(socket_.get(), index),
                 fmt::format("Cannot take the interface '{}' off its bridge", NameOf(link)));
  }
  return Check(rtnl_link_enslave_ifindex(socket_.get(), rtnl_link_get_ifindex(bridge), index),
               fmt::format("Cannot put the interface '{}' on the bridge '{}'", NameOf(link), NameOf(bridge)));
}

Status Netlink::Delete(rtnl_link* link) const {
  return Check(rtnl_link_delete(socket_.get(), link), fmt::format("Cannot remove the interface '{}'", NameOf(link)));
}

Result<Configured> Netlink::ConfigurationOf(rtnl_link* link) const {
  const int index = rtnl_link_get_ifindex(link);
  Configured configured;
  nl_cache* raw = nullptr;
  Status read = Check(rtnl_addr_alloc_cache(socket_.get(), &raw), "Cannot read the addresses of this machine");
  if (!read) return read.error();
  const CacheHandle addresses(raw);
  ForEach(addresses.get(), [&](nl_object* object) {
    auto* const address = reinterpret_cast<rtnl_addr*>(object);
    if (!IsConfiguredAddress(address, index)) return;
    configured.addresses.emplace_back(reinterpret_cast<rtnl_addr*>(nl_object_clone(object)));
  });
  read = Check(rtnl_route_alloc_cache(socket_.get(), AF_UNSPEC, 0, &raw), "Cannot read the routes of this machine");
  if (!read) return read.error();
  const CacheHandle routes(raw);
  ForEach(routes.get(), [&](nl_object* object) {
    auto* const route = reinterpret_cast<rtnl_route*>(object);
    if (!IsConfiguredRoute(route, index)) return;
    if (!IsMovable(route)) {
      configured.has_other_routes = true;
      return;
    }
    configured.routes.emplace_back(reinterpret_cast<rtnl_route*>(nl_object_clone(object)));
  });
  return configured;
}

// Nothing is taken away before it is in its new place, so a process that is killed loses nothing.
Status Netlink::Move(const Configured& configured, rtnl_link* from, rtnl_link* to) const {
  const std::string what = fmt::format("Cannot move addresses from '{}' to '{}'", NameOf(from), NameOf(to));
  for (const AddressHandle& address : configured.addresses) {
    rtnl_addr_set_ifindex(address.get(), rtnl_link_get_ifindex(to));
    if (rtnl_addr_get_family(address.get()) == AF_INET) rtnl_addr_set_label(address.get(), NameOf(to).c_str());
    // No duplicate is searched: the other interface still has the address.
    if (rtnl_addr_get_family(address.get()) == AF_INET6) rtnl_addr_set_flags(address.get(), IFA_F_NODAD);
    const int result = rtnl_addr_add(socket_.get(), address.get(), 0);
    if (result != -NLE_EXIST) {
      if (Status added = Check(result, what); !added) return added;
    }
  }
  // Those with gateways come last: they need the routes to the gateways.
  for (const bool has_gateway : {false, true}) {
    for (const RouteHandle& route : configured.routes) {
      rtnl_nexthop* const hop = rtnl_route_nexthop_n(route.get(), 0);
      if ((rtnl_route_nh_get_gateway(hop) != nullptr) != has_gateway) continue;
      rtnl_route_nh_set_ifindex(hop, rtnl_link_get_ifindex(to));
      // What the kernel says of an interface without a cable, and accepts from nobody.
      rtnl_route_unset_flags(route.get(), RTNH_F_DEAD | RTNH_F_LINKDOWN);
      rtnl_route_nh_unset_flags(hop, RTNH_F_DEAD | RTNH_F_LINKDOWN);
      const int result = rtnl_route_add(socket_.get(), route.get(), NLM_F_CREATE | NLM_F_REPLACE);
      if (Status replaced = Check(result, what); !replaced) return replaced;
    }
  }
  // As they are on the interface: the kernel compares more than the address.
  const Result<Configured> rest = ConfigurationOf(from);
  if (!rest) return rest.error();
  for (const AddressHandle& address : rest->addresses) {
    const bool is_moved = std::ranges::any_of(configured.addresses, [&](const AddressHandle& moved) {
      return nl_addr_cmp(rtnl_addr_get_local(moved.get()), rtnl_addr_get_local(address.get())) == 0;
    });
    if (!is_moved) continue;
    // The kernel removes an address's secondary ones with it.
    const int result = rtnl_addr_delete(socket_.get(), address.get(), 0);
    if (result == -NLE_NOADDR) continue;
    if (Status removed = Check(result, what); !removed) return removed;
  }
  return {};
}

}  // namespace vexa::machine
