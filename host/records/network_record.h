// The networks of the cluster that guests' interfaces can be in.
//
//   /dash/network/<id>/object   {"name", "kind", "network_name", "description", "subnet", "vlan_id", "uplink",
//                               "uplinks": {"<host id>": interface}, "move_addresses", "bridge_name": as
//                               "network_name"}
//   /dash/host/<id>/networks    {"states": {"<network id>": {"state", "reason"}}, "found": [{"name", "kind",
//                               "subnet"}], "subnets": [subnet]}: what the host last found out about its networks
//   /networks                   written by every commit that changes networks, or puts an interface into a network
//
// A network has two names: "name" is what people call it, and can be edited. "network_name" is what the hosts call it,
// a network of libvirt or a bridge, and never changes; the records of interfaces contain it as well. The id of a
// network is the one that imports and edits give to this name (domain_xml::NetworkGroupId), so an interface that was
// imported before the network was added is in it. Threads and hosts: any, at the same time.
#pragma once

#include <json/value.h>

#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "host/base/ipv4_subnet.h"
#include "host/base/result.h"
#include "host/records/named_record.h"
#include "host/store/store.h"

namespace vexa::records {

inline constexpr std::size_t kMaxNetworks = 256;

enum class NetworkKind {
  kBridge,    // a bridge of the host, with its uplinks
  kNat,       // libvirt: a subnet of its own, from which guests reach other networks
  kIsolated,  // libvirt: a subnet of its own, from which guests reach each other and their host
  kVlan,      // a VLAN of an uplink, on a bridge of its own; on Open vSwitch ports with the tag
  kMacvtap,   // libvirt: guests are attached to the uplink itself
};

// "bridge", "nat", "isolated", "vlan", "macvtap". Not set: no kind has this name.
std::string_view NetworkKindName(NetworkKind kind);
std::optional<NetworkKind> FindNetworkKind(std::string_view name);
// Whether networks of the kind have subnets of their own.
constexpr bool HasSubnet(NetworkKind kind) { return kind == NetworkKind::kNat || kind == NetworkKind::kIsolated; }

struct Network {
  std::string id;
  std::string name;
  NetworkKind kind = NetworkKind::kBridge;
  std::string network_name;
  std::string description;
  std::string subnet;                          // of the kinds with HasSubnet
  int vlan_id = 0;                             // of kVlan
  std::string uplink;                          // on hosts that are not in `uplinks`; "": none
  std::map<std::string, std::string> uplinks;  // by host id; "": none on this host
  // Whether addresses and routes of the uplink may be moved to the bridge; otherwise an uplink with addresses is
  // refused.
  bool move_addresses = false;

  // The uplink on this host; "": none.
  const std::string& UplinkOn(const std::string& host_id) const;
};

// Checks everything that does not depend on other networks. Errors: kInvalid with a sentence for users.
Status CheckNetwork(const Network& network);

// A record of which CheckNetwork may not approve, because another program has written it.
struct StoredNetwork {
  Network network;
  NamedRecord record;
  std::string damage;  // a sentence; "": none
};

// Total: members of other types count as missing.
StoredNetwork ParseNetwork(NamedRecord record);
Json::Value NetworkToJson(const Network& network);

// By id. Errors: those of the store.
Result<std::vector<StoredNetwork>> ReadNetworks(const store::Snapshot& snapshot);
// Not set: there is no such network. Errors: those of the store.
Result<std::optional<StoredNetwork>> ReadNetwork(const store::Snapshot& snapshot, const std::string& id);

// What a host has found out about a network: "ready" (guests can be started with it), "missing" (something must be
// added first), "failed", and a reason except when it is ready.
inline constexpr char kNetworkReady[] = "ready";
inline constexpr char kNetworkMissing[] = "missing";
inline constexpr char kNetworkFailed[] = "failed";
struct NetworkCondition {
  std::string state;
  std::string reason;
  bool operator==(const NetworkCondition&) const = default;
};

// A network of libvirt or a bridge that this system has not made.
struct FoundNetwork {
  std::string name;
  std::string kind;       // as NetworkKindName, or "other"
  std::string subnet;     // "": unknown or none
  bool is_active = true;  // false: of libvirt, and not started; a guest's start starts it
  bool operator==(const FoundNetwork&) const = default;
};

struct NetworkReport {
  std::map<std::string, NetworkCondition> conditions;  // by network id
  std::vector<FoundNetwork> found;
  std::vector<std::string> subnets;  // of the host's own interfaces, except those of the cluster's networks
  bool operator==(const NetworkReport&) const = default;
};

std::string NetworkReportKey(const std::string& host_id);
Json::Value NetworkReportToJson(const NetworkReport& networks);
// Total, and bounded.
NetworkReport ParseNetworkReport(const Json::Value& value);
// The reports of all hosts that have a record, by host id; not set: the host has not reported anything. Errors: those
// of the store.
Result<std::map<std::string, std::optional<NetworkReport>>> ReadNetworkReports(const store::Snapshot& snapshot);

// The key that is written whenever an interface is put into a network, or networks change.
std::string NetworksGuardKey();
// Adds the compare: the commit conflicts when that has happened since the snapshot.
Status CompareNetworksRevision(const store::Snapshot& snapshot, store::Transaction& transaction);

// The names of all networks, added and found, in byte order and without duplicates. Errors: those of the store.
Result<std::vector<std::string>> NetworkNames(const store::Snapshot& snapshot);

}  // namespace vexa::records
