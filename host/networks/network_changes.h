// The networks of the cluster, as administrators manage them: added, edited, removed, and listed with what their hosts
// have made of them. host/records/network_record.h describes the records.
//
// Every change of a network writes records::NetworksGuardKey() and compares its revision, so each is planned with all
// networks as they are: no two get one name or overlapping subnets, and none is removed while an interface is put into
// it.
// Threads: any, at the same time; hosts as well.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "host/base/refusal.h"
#include "host/base/result.h"
#include "host/records/network_record.h"
#include "host/store/store.h"

namespace vexa::networks {

// What is set of a new network, or changes of an existing one.
struct NetworkSettings {
  std::optional<std::string> name;
  std::optional<std::string> description;
  std::optional<std::string> subnet;
  std::optional<int> vlan_id;
  std::optional<std::string> uplink;                          // "": none
  std::optional<std::map<std::string, std::string>> uplinks;  // all of them, by host id
  std::optional<bool> move_addresses;
};

struct NewNetwork {
  records::NetworkKind kind = records::NetworkKind::kNat;
  std::string bridge;        // of kBridge and kVlan: the name of the bridge; "": the network's name
  NetworkSettings settings;  // with a name; without a subnet, a free one is chosen
};

// Checks what does not depend on the store. Errors: kInvalid with a sentence.
Status CheckNewNetwork(const NewNetwork& added);

// Adds a network that CheckNewNetwork accepts, and sets `id` to its id. A network of libvirt or a bridge that hosts
// already have under this name is adopted: hosts use it as it is, and make it only where it is missing.
// Refusals: records::kRecordExists (a network has the name, the name on hosts, or an overlapping subnet; a host has an
// interface in the subnet, or a network of another kind with the name; there are kMaxNetworks; no subnet is free);
// kRecordFailed.
Result<void, Refusal> AddNetwork(store::Store& store, const NewNetwork& added, std::string& id);

// Changes what is set in `settings`, and sets `name` to the network's name before, or "" when there is no such network.
// Refusals: kBadParameter (the network would not pass CheckNetwork); kNotFoundOrUnreadable (there is no such network);
// those of AddNetwork.
Result<void, Refusal> EditNetwork(store::Store& store, const std::string& id, const NetworkSettings& settings,
                                  std::string& name);

// Removes a network; the hosts then remove what they have made for it. Sets `name` like EditNetwork.
// Refusals: kNotFoundOrUnreadable (there is no such network); records::kRecordInUse (interfaces are in it; the sentence
// names up to ten of their guests); kRecordFailed.
Result<void, Refusal> RemoveNetwork(store::Store& store, const std::string& id, std::string& name);

// The network that a new cluster begins with, when its first host has none: "default", which reaches other networks by
// NAT, with a subnet that is free on the host as well, by its `report`. Once anything has been written about networks,
// this does nothing. Returns whether it was added. Errors: those of the store.
enum class HostHasNetworks { kNo, kYes };
Result<bool> AddDefaultNetwork(store::Store& store, HostHasNetworks has_networks, const std::string& host_id,
                               const records::NetworkReport& report);

struct ListedNetwork {
  records::Network network;  // of one that was only found: id, name, kind, network_name and subnet
  bool is_managed = true;    // false: hosts have found it, and it has no record
  std::string kind;          // as records::NetworkKindName, or "other" of one that was found
  bool is_active = true;     // false: hosts have found it in libvirt, and none of them has started it
  // By host id. "unknown" when the host is gone or has not reported anything yet.
  std::map<std::string, records::NetworkCondition> hosts;

  // The worst state of the hosts: "failed", "missing", "unknown", "ready".
  std::string State() const;
};
inline constexpr char kNetworkUnknown[] = "unknown";
// The reason for a ready network that this system has not made.
inline constexpr char kNotActive[] = "It is not active in libvirt; the start of a guest that needs it starts it";

// All networks, by name. Errors: those of the store.
Result<std::vector<ListedNetwork>> ListNetworks(const store::Store& store);

}  // namespace vexa::networks
