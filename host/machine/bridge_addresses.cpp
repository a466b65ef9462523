#include "host/machine/bridge_addresses.h"

#include <fmt/format.h>
#include <linux/rtnetlink.h>
#include <netlink/route/nexthop.h>

#include <array>
#include <cstdint>

namespace vexa::machine {

std::string AddressText(nl_addr* address) {
  std::array<char, 128> text{};
  return address == nullptr ? "" : nl_addr2str(address, text.data(), text.size());
}

namespace {

// For the files of systemd-networkd.
void Describe(const AddressHandle& address, BridgeAddresses& described) {
  if (rtnl_addr_get_valid_lifetime(address.get()) != UINT32_MAX) {
    (rtnl_addr_get_family(address.get()) == AF_INET ? described.has_ipv4_leases : described.has_ipv6_leases) = true;
    return;
  }
  const std::string line = fmt::format("Address={}\n", AddressText(rtnl_addr_get_local(address.get())));
  if (described.lines.find(line) == std::string::npos) described.lines += line;
}
void Describe(const RouteHandle& route, BridgeAddresses& described) {
  const bool has_leases =
      rtnl_route_get_family(route.get()) == AF_INET ? described.has_ipv4_leases : described.has_ipv6_leases;
  // Leases bring their routes.
  if (has_leases && rtnl_route_get_protocol(route.get()) != RTPROT_STATIC) return;
  rtnl_nexthop* const hop = rtnl_route_nexthop_n(route.get(), 0);
  nl_addr* const destination = rtnl_route_get_dst(route.get());
  const bool is_default = destination == nullptr || nl_addr_get_prefixlen(destination) == 0;
  const std::string gateway = AddressText(rtnl_route_nh_get_gateway(hop));
  described.lines += "\n[Route]\n";
  if (!is_default) described.lines += fmt::format("Destination={}\n", AddressText(destination));
  if (!gateway.empty()) described.lines += fmt::format("Gateway={}\n", gateway);
  if ((rtnl_route_nh_get_flags(hop) & RTNH_F_ONLINK) != 0) described.lines += "GatewayOnLink=yes\n";
  if (const std::uint32_t metric = rtnl_route_get_priority(route.get()); metric != 0) {
    described.lines += fmt::format("Metric={}\n", metric);
  }
}
}  // namespace

BridgeAddresses DescribeAddresses(const Configured& a, const Configured& b) {
  BridgeAddresses described;
  for (const Configured* one : {&a, &b}) {
    for (const AddressHandle& address : one->addresses) Describe(address, described);
  }
  for (const Configured* one : {&a, &b}) {
    for (const RouteHandle& route : one->routes) Describe(route, described);
  }
  return described;
}

}  // namespace vexa::machine
