// The files that let systemd-networkd make a bridge again when the machine starts, and that name what it is for:
//
//   10-vexa-bridge-<bridge>.netdev    the bridge; begins with "# vexa-network <network id> <host id>", then has
//                                     "# uplink <interface>" and, when its port is a VLAN, "# vlan <tag>"
//   10-vexa-bridge-<bridge>.network   its addresses and routes
//   10-vexa-port-<bridge>.network     puts the uplink on it; without a VLAN only
//
// A file without that first line was made by somebody else. Threads: one at a time.
#pragma once

#include <map>
#include <optional>
#include <string>

#include "host/base/result.h"
#include "host/machine/bridge_request.h"
#include "host/machine/machine.h"

namespace vexa::machine {

inline constexpr char kNetworkdFolder[] = "/etc/systemd/network";

// What a bridge takes over from its uplink.
struct BridgeAddresses {
  std::string lines;             // "Address=" and [Route] sections
  bool has_ipv4_leases = false;  // an IPv4 address came from DHCP
  bool has_ipv6_leases = false;  // an IPv6 address came from a router
};

class BridgeFiles {
 public:
  BridgeFiles(const std::string& folder, const std::string& bridge);

  // What the bridge was made for; move_addresses is not in it. Not set: there is no such file.
  std::optional<BridgeRequest> Read() const;
  // Returns a file under one of the three names without this mark; empty if all of them have it or are absent.
  std::string Foreign(const BridgeMark& mark) const;
  // Writes what is missing or has changed; `mac` is the address of the bridge's interface, "" for any. The addresses of
  // a bridge are written when there are some to move, and else stay as they are in the file. Errors: those of
  // WriteFileAtomically.
  Status Write(const BridgeRequest& request, const std::string& mac, const BridgeAddresses& all, bool is_moving) const;
  // The file that names the network is removed last. Errors: kInternal.
  Status Remove() const;

 private:
  const std::string folder_;
  const std::string bridge_;
  const std::string netdev_;
  const std::string network_;
  const std::string port_;
};

// The bridges that such files in kNetworkdFolder are for, by name.
std::map<std::string, BridgeMark> BridgesWithFiles(const Machine& machine);

}  // namespace vexa::machine
