#include "host/networks/network_changes.h"

#include <fmt/format.h>

#include <algorithm>
#include <utility>

#include "host/base/sanitize_for_log.h"
#include "host/domain_xml/domain_parse.h"
#include "host/networks/network_users.h"
#include "host/records/keys.h"
#include "json/readers.h"

namespace vexa::networks {
namespace {

using records::kRecordExists;
using records::kRecordFailed;
using records::Network;
using records::NetworkReport;
using records::StoredNetwork;

constexpr char kCategory[] = "network";
constexpr char kDefaultName[] = "default";

std::string Quoted(const std::string& text) { return "'" + SanitizeForLog(text, records::kMaxRecordName) + "'"; }

Refusal NoSuchNetwork(const std::string& id) {
  return {user_error::kNotFoundOrUnreadable, fmt::format("There is no network {}", Quoted(id))};
}

void Apply(const NetworkSettings& settings, Network& network) {
  const auto apply = [](const auto& setting, auto& member) {
    if (setting) member = *setting;
  };
  apply(settings.name, network.name);
  apply(settings.description, network.description);
  apply(settings.subnet, network.subnet);
  apply(settings.vlan_id, network.vlan_id);
  apply(settings.uplink, network.uplink);
  apply(settings.uplinks, network.uplinks);
  apply(settings.move_addresses, network.move_addresses);
}

Network MakeNetwork(const NewNetwork& added) {
  Network network;
  network.kind = added.kind;
  Apply(added.settings, network);
  network.network_name = added.bridge.empty() ? network.name : added.bridge;
  network.id = domain_xml::NetworkGroupId(network.network_name);
  return network;
}

// All networks and reports of hosts in one state of the store.
struct Known {
  std::vector<StoredNetwork> networks;
  std::map<std::string, std::optional<NetworkReport>> reports;
};

Result<Known> ReadKnown(const store::Snapshot& snapshot) {
  auto networks = records::ReadNetworks(snapshot);
  if (!networks) return networks.error();
  auto reports = records::ReadNetworkReports(snapshot);
  if (!reports) return reports.error();
  return Known{std::move(*networks), std::move(*reports)};
}

// Where a subnet is used that overlaps with `subnet`, for a sentence. "": nowhere.
std::string FindOverlap(const Known& known, const Network& network, const Ipv4Subnet& subnet) {
  const auto overlaps = [&](const std::string& text) {
    const auto other = ParseIpv4Subnet(text);
    return other && Overlap(*other, subnet);
  };
  for (const StoredNetwork& other : known.networks) {
    if (other.network.id == network.id) continue;
    const std::string& text = other.network.subnet;
    if (overlaps(text)) return fmt::format("{} of the network {}", text, Quoted(other.network.name));
  }
  for (const auto& [host_id, report] : known.reports) {
    if (!report) continue;
    for (const std::string& text : report->subnets) {
      if (overlaps(text)) return fmt::format("{} of an interface of the host {}", text, Quoted(host_id));
    }
    for (const records::FoundNetwork& found : report->found) {
      if (found.name == network.network_name || !overlaps(found.subnet)) continue;
      return fmt::format("{} of the network {} of the host {}", found.subnet, Quoted(found.name), Quoted(host_id));
    }
  }
  return "";
}

// Returns a subnet that is not used anywhere, or nullopt when all subnets are in use.
std::optional<Ipv4Subnet> ChooseSubnet(const Known& known, const Network& network) {
  struct Range {
    const char* first;
    int count;
  };
  static constexpr Range kRanges[] = {{"192.168.100.0/24", 155}, {"172.20.0.0/24", 1024}};
  for (const Range& range : kRanges) {
    Ipv4Subnet subnet = *ParseIpv4Subnet(range.first);
    for (int i = 0; i < range.count; ++i, subnet.address += 256) {
      if (FindOverlap(known, network, subnet).empty()) return subnet;
    }
  }
  return std::nullopt;
}

// The subnet of the network that hosts have already under the name. "": none or unknown.
std::string AdoptedSubnet(const Known& known, const Network& network) {
  for (const auto& [host_id, report] : known.reports) {
    if (!report) continue;
    const auto found = std::ranges::find(report->found, network.network_name, &records::FoundNetwork::name);
    if (found == report->found.end() || found->subnet.empty()) continue;
    Network adopted = network;
    adopted.subnet = found->subnet;
    if (CheckNetwork(adopted)) return found->subnet;
  }
  return "";
}

std::optional<Refusal> CheckSubnet(const Known& known, Network& network) {
  if (!records::HasSubnet(network.kind)) return std::nullopt;
  if (network.subnet.empty()) network.subnet = AdoptedSubnet(known, network);
  if (network.subnet.empty()) {
    const auto chosen = ChooseSubnet(known, network);
    if (!chosen) return Refusal{kRecordExists, "No private subnet is free: give one with 'subnet'"};
    network.subnet = chosen->ToString();
    return std::nullopt;
  }
  const auto subnet = ParseIpv4Subnet(network.subnet);
  if (!subnet) return std::nullopt;
  const std::string overlap = FindOverlap(known, network, *subnet);
  if (overlap.empty()) return std::nullopt;
  return Refusal{kRecordExists, fmt::format("The subnet {} overlaps with {}", network.subnet, overlap)};
}

// Two VLANs with one tag on one interface would be the same network.
bool IsSameVlan(const Network& a, const Network& b) {
  if (a.kind != records::NetworkKind::kVlan || b.kind != a.kind || a.vlan_id != b.vlan_id) return false;
  if (!a.uplink.empty() && a.uplink == b.uplink) return true;
  const auto meet = [](const Network& one, const Network& other) {
    return std::ranges::any_of(one.uplinks, [&](const auto& uplink) {
      return !uplink.second.empty() && other.UplinkOn(uplink.first) == uplink.second;
    });
  };
  return meet(a, b) || meet(b, a);
}

std::optional<Refusal> CheckOthers(const Known& known, const Network& network) {
  for (const StoredNetwork& other : known.networks) {
    if (other.network.id == network.id) continue;
    const std::string name = Quoted(other.network.name);
    if (other.network.name == network.name)
      return Refusal{kRecordExists, fmt::format("There is a network {} already", name)};
    if (other.network.network_name == network.network_name) {
      return Refusal{kRecordExists,
                     fmt::format("The network {} has the name {} on its hosts", name, Quoted(network.network_name))};
    }
    if (IsSameVlan(other.network, network)) {
      return Refusal{kRecordExists,
                     fmt::format("The network {} has the tag {} on the same uplink", name, network.vlan_id)};
    }
  }
  return std::nullopt;
}

std::optional<Refusal> CheckFound(const Known& known, const Network& network) {
  for (const auto& [host_id, report] : known.reports) {
    if (!report) continue;
    for (const records::FoundNetwork& found : report->found) {
      if (found.name != network.network_name || found.kind == NetworkKindName(network.kind)) continue;
      return Refusal{kRecordExists, fmt::format("The host {} has a network {} of the kind {}", Quoted(host_id),
                                                Quoted(found.name), found.kind)};
    }
  }
  return std::nullopt;
}

std::optional<Refusal> FirstOf(std::optional<Refusal> first, std::optional<Refusal> second) {
  return first ? std::move(first) : std::move(second);
}

Status TouchNetworks(const store::Snapshot& snapshot, const std::string& id, store::Transaction& transaction) {
  transaction.operations.push_back({records::NetworksGuardKey(), json::ToText(Json::Value(id))});
  return records::CompareNetworksRevision(snapshot, transaction);
}

// `own`: what a host has found that has not reported it yet.
Result<store::Transaction> PlanAddition(const store::Snapshot& snapshot, const NewNetwork& added, std::string& id,
                                        std::optional<Refusal>& refused,
                                        const std::pair<std::string, NetworkReport>* own = nullptr) {
  store::Transaction transaction;
  Result<Known> known = ReadKnown(snapshot);
  if (!known) return known.error();
  if (own != nullptr) known->reports[own->first] = own->second;
  Network network = MakeNetwork(added);
  const auto interface_id = FindNetworkIdOfInterfaces(snapshot, network.network_name, network.id);
  if (!interface_id) return interface_id.error();
  network.id = *interface_id;
  id = network.id;
  const bool exists =
      std::ranges::any_of(known->networks, [&](const StoredNetwork& other) { return other.network.id == network.id; });
  if (exists) {
    refused = Refusal{kRecordExists, fmt::format("There is a network {} already", Quoted(network.network_name))};
  } else if (known->networks.size() >= records::kMaxNetworks) {
    refused = Refusal{kRecordExists,
                      fmt::format("There are {} networks already, and no more are possible", records::kMaxNetworks)};
  } else {
    refused = FirstOf(FirstOf(CheckOthers(*known, network), CheckFound(*known, network)), CheckSubnet(*known, network));
  }
  if (refused) return transaction;
  const std::string key = records::ObjectKey(kCategory, network.id);
  transaction.compares.push_back({key, 0});
  transaction.operations.push_back({key, json::ToText(records::NetworkToJson(network))});
  if (Status touched = TouchNetworks(snapshot, network.id, transaction); !touched) return touched.error();
  return transaction;
}

// Reads a network that is to be changed: null if it does not exist, which is put into `refused`.
Result<std::optional<StoredNetwork>> ReadForChange(const store::Snapshot& snapshot, const std::string& id,
                                                   std::string& name, std::optional<Refusal>& refused) {
  name.clear();
  auto stored = records::ReadNetwork(snapshot, id);
  if (!stored) return stored;
  if (*stored) {
    name = records::DisplayName((*stored)->record);
  } else {
    refused = NoSuchNetwork(id);
  }
  return stored;
}

Result<store::Transaction> PlanEdit(const store::Snapshot& snapshot, const std::string& id,
                                    const NetworkSettings& settings, std::string& name,
                                    std::optional<Refusal>& refused) {
  store::Transaction transaction;
  const auto stored = ReadForChange(snapshot, id, name, refused);
  if (!stored) return stored.error();
  if (!*stored) return transaction;
  Network network = (*stored)->network;
  Apply(settings, network);
  if (const Status checked = records::CheckNetwork(network); !checked) {
    refused = Refusal{user_error::kBadParameter, checked.error().message()};
    return transaction;
  }
  const Result<Known> known = ReadKnown(snapshot);
  if (!known) return known.error();
  refused = FirstOf(CheckOthers(*known, network), CheckSubnet(*known, network));
  if (refused) return transaction;
  // Members that this version does not know stay.
  Json::Value record = (*stored)->record.record;
  for (const char* member : {"description", "subnet", "vlan_id", "uplink", "uplinks", "move_addresses"}) {
    record.removeMember(member);
  }
  const Json::Value edited = records::NetworkToJson(network);
  for (const std::string& member : json::MemberNames(edited)) record[member] = json::Member(edited, member);
  if (record == (*stored)->record.record) return transaction;
  const std::string key = records::ObjectKey(kCategory, id);
  transaction.compares.push_back({key, (*stored)->record.revision});
  transaction.operations.push_back({key, json::ToText(record)});
  if (Status touched = TouchNetworks(snapshot, id, transaction); !touched) return touched.error();
  return transaction;
}

Result<store::Transaction> PlanRemoval(const store::Snapshot& snapshot, const std::string& id, std::string& name,
                                       std::optional<Refusal>& refused) {
  store::Transaction transaction;
  const auto stored = ReadForChange(snapshot, id, name, refused);
  if (!stored) return stored.error();
  if (!*stored) return transaction;
  const auto users = FindNetworkUsers(snapshot, (*stored)->network);
  if (!users) return users.error();
  if (!users->empty()) {
    refused = Refusal{records::kRecordInUse,
                      fmt::format("The network '{}' is used by {}. Put their interfaces into another network first",
                                  name, records::FormatReferrers(*users))};
    return transaction;
  }
  const Status removed = records::RemoveNamedRecord(snapshot, kCategory, (*stored)->record, transaction);
  if (!removed) return removed.error();
  // An interface that is put into the network meanwhile makes this commit a conflict.
  if (Status touched = TouchNetworks(snapshot, id, transaction); !touched) return touched.error();
  return transaction;
}

}  // namespace

Status CheckNewNetwork(const NewNetwork& added) {
  const bool has_bridge = added.kind == records::NetworkKind::kBridge || added.kind == records::NetworkKind::kVlan;
  if (!added.bridge.empty() && !has_bridge) {
    return Error(ErrorCode::kInvalid, "Only networks of the kinds bridge and vlan have a bridge");
  }
  Network network = MakeNetwork(added);
  // One is chosen later.
  if (records::HasSubnet(network.kind) && network.subnet.empty()) network.subnet = "192.168.100.0/24";
  return records::CheckNetwork(network);
}

Result<void, Refusal> AddNetwork(store::Store& store, const NewNetwork& added, std::string& id) {
  return records::CommitRecord(store, [&](const records::Reader& reader, std::optional<Refusal>& refused) {
    return PlanAddition(reader, added, id, refused);
  });
}

Result<void, Refusal> EditNetwork(store::Store& store, const std::string& id, const NetworkSettings& settings,
                                  std::string& name) {
  return records::CommitRecord(store, [&](const records::Reader& reader, std::optional<Refusal>& refused) {
    return PlanEdit(reader, id, settings, name, refused);
  });
}

Result<void, Refusal> RemoveNetwork(store::Store& store, const std::string& id, std::string& name) {
  return records::CommitRecord(store, [&](const records::Reader& reader, std::optional<Refusal>& refused) {
    return PlanRemoval(reader, id, name, refused);
  });
}

Result<bool> AddDefaultNetwork(store::Store& store, HostHasNetworks has_networks, const std::string& host_id,
                               const NetworkReport& report) {
  const std::pair own(host_id, report);
  bool is_added = false;
  const Status done = records::CommitWithRetry(store, [&](const records::Reader& reader) -> Result<store::Transaction> {
    is_added = false;
    const auto touched = reader.RevisionOf(records::NetworksGuardKey());
    if (!touched) return touched.error();
    const auto networks = records::ReadNetworks(reader);
    if (!networks) return networks.error();
    store::Transaction transaction;
    if (*touched != 0) return transaction;
    if (has_networks == HostHasNetworks::kNo && networks->empty()) {
      NewNetwork added;
      added.settings.name = kDefaultName;
      std::string id;
      std::optional<Refusal> refused;
      auto planned = PlanAddition(reader, added, id, refused, &own);
      if (!planned || !refused) {
        is_added = planned.ok();
        return planned;
      }
    }
    if (Status put = TouchNetworks(reader, "", transaction); !put) return put.error();
    return transaction;
  });
  if (!done) return done.error();
  return is_added;
}

}  // namespace vexa::networks
