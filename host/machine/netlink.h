// The kernel's interfaces, addresses and routes through netlink (libnl). For host/machine/*.cpp only.
#pragma once

#include <netlink/addr.h>
#include <netlink/netlink.h>
#include <netlink/route/addr.h>
#include <netlink/route/link.h>
#include <netlink/route/route.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "host/base/result.h"

namespace vexa::machine {

template <auto free>
struct FreeWith {
  template <class T>
  void operator()(T* object) const {
    free(object);
  }
};
using SocketHandle = std::unique_ptr<nl_sock, FreeWith<nl_socket_free>>;
using LinkHandle = std::unique_ptr<rtnl_link, FreeWith<rtnl_link_put>>;
using AddressHandle = std::unique_ptr<rtnl_addr, FreeWith<rtnl_addr_put>>;
using RouteHandle = std::unique_ptr<rtnl_route, FreeWith<rtnl_route_put>>;
using CacheHandle = std::unique_ptr<nl_cache, FreeWith<nl_cache_free>>;

// Addresses and routes of an interface that were configured, by hand or by DHCP: neither link-local addresses nor
// routes that the kernel adds by itself.
struct Configured {
  std::vector<AddressHandle> addresses;
  std::vector<RouteHandle> routes;
  // Routes that Move cannot move: in tables of their own, or over several interfaces.
  bool has_other_routes = false;
  bool empty() const { return addresses.empty() && routes.empty() && !has_other_routes; }
};

// Threads: one at a time.
class Netlink {
 public:
  static Result<Netlink> Open();

  // The errors of all functions are kDenied and kInternal.

  // Null: there is no interface of this name.
  Result<LinkHandle> Find(const std::string& name) const;
  Result<std::vector<LinkHandle>> FindByAlias(const std::string& alias) const;
  Result<std::vector<LinkHandle>> PortsOf(rtnl_link* bridge) const;

  // The bridge has the hardware address of `like`, and of any of its ports when `like` is null.
  Status AddBridge(const std::string& name, rtnl_link* like) const;
  Status AddVlan(const std::string& name, rtnl_link* uplink, int vlan_id) const;
  Status SetAlias(rtnl_link* link, const std::string& alias) const;
  Status SetUp(rtnl_link* link) const;
  // The interface becomes a port of the bridge, or of none when `bridge` is null.
  Status SetBridge(rtnl_link* link, rtnl_link* bridge) const;
  Status Delete(rtnl_link* link) const;

  Result<Configured> ConfigurationOf(rtnl_link* link) const;
  // Moves what `configured` has from one interface to another. What is there already is left. After an error, a part
  // may have been moved: move it back.
  Status Move(const Configured& configured, rtnl_link* from, rtnl_link* to) const;

 private:
  explicit Netlink(SocketHandle socket) : socket_(std::move(socket)) {}
  template <class Matches>
  Result<std::vector<LinkHandle>> FindAll(Matches matches) const;
  // Changes one property of a link, which `set` sets.
  template <class Set>
  Status Change(rtnl_link* link, const std::string& what, Set set) const;

  SocketHandle socket_;
};

}  // namespace vexa::machine
