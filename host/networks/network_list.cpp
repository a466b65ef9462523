// Lists the networks of the cluster with what each host has made of them.
#include <algorithm>
#include <set>
#include <utility>

#include "host/domain_xml/domain_parse.h"
#include "host/networks/network_changes.h"
#include "host/records/host_liveness.h"

namespace vexa::networks {
namespace {

using records::NetworkCondition;
using records::NetworkReport;

struct Hosts {
  std::map<std::string, std::optional<NetworkReport>> reports;
  std::set<std::string> gone;
};

NetworkCondition ConditionOn(const Hosts& hosts, const std::string& host_id, const std::string& network_id) {
  if (hosts.gone.contains(host_id)) return {kNetworkUnknown, "The host is inaccessible"};
  const auto& report = hosts.reports.at(host_id);
  if (report) {
    const auto found = report->conditions.find(network_id);
    if (found != report->conditions.end()) return found->second;
  }
  return {kNetworkUnknown, "The host has not looked at it yet"};
}

ListedNetwork Describe(const records::StoredNetwork& stored, const Hosts& hosts) {
  ListedNetwork listed;
  listed.network = stored.network;
  listed.kind = NetworkKindName(stored.network.kind);
  for (const auto& [host_id, report] : hosts.reports) {
    listed.hosts[host_id] = stored.damage.empty()
                                ? ConditionOn(hosts, host_id, stored.network.id)
                                : NetworkCondition{records::kNetworkFailed, "The record is damaged: " + stored.damage};
  }
  return listed;
}

// Whether a host has started the network, or all of them found it in another way than as one of libvirt. Hosts that are
// gone do not count.
bool IsActive(const Hosts& hosts, const std::string& network_name) {
  bool is_inactive = false;
  for (const auto& [host_id, report] : hosts.reports) {
    if (!report || hosts.gone.contains(host_id)) continue;
    const auto found = std::ranges::find(report->found, network_name, &records::FoundNetwork::name);
    if (found == report->found.end()) continue;
    if (found->is_active) return true;
    is_inactive = true;
  }
  return !is_inactive;
}

}  // namespace

std::string ListedNetwork::State() const {
  for (const char* state : {records::kNetworkFailed, records::kNetworkMissing, kNetworkUnknown}) {
    const bool has_state = std::ranges::any_of(hosts, [&](const auto& host) { return host.second.state == state; });
    if (has_state) return state;
  }
  return hosts.empty() ? kNetworkUnknown : records::kNetworkReady;
}

Result<std::vector<ListedNetwork>> ListNetworks(const store::Store& store) {
  const Result<records::Reader> reader = records::Reader::Open(store);
  if (!reader) return reader.error();
  const auto networks = records::ReadNetworks(*reader);
  if (!networks) return networks.error();
  auto reports = records::ReadNetworkReports(*reader);
  if (!reports) return reports.error();
  Hosts hosts{std::move(*reports), {}};
  for (const auto& [host_id, report] : hosts.reports) {
    const auto liveness = records::LivenessOf(*reader, host_id);
    if (!liveness) return liveness.error();
    if (liveness->is_gone) hosts.gone.insert(host_id);
  }
  std::vector<ListedNetwork> listed;
  std::set<std::string> managed;
  for (const records::StoredNetwork& stored : *networks) {
    listed.push_back(Describe(stored, hosts));
    managed.insert(stored.network.network_name);
  }
  std::map<std::string, ListedNetwork> found;  // by name
  for (const auto& [host_id, report] : hosts.reports) {
    if (!report) continue;
    for (const records::FoundNetwork& one : report->found) {
      if (managed.contains(one.name)) continue;
      ListedNetwork& entry = found[one.name];
      entry.is_managed = false;
      entry.kind = one.kind;
      entry.network.id = domain_xml::NetworkGroupId(one.name);
      entry.network.name = one.name;
      entry.network.network_name = one.name;
      entry.network.subnet = one.subnet;
      entry.hosts[host_id] = hosts.gone.contains(host_id)
                                 ? NetworkCondition{kNetworkUnknown, "The host is inaccessible"}
                                 : NetworkCondition{records::kNetworkReady, one.is_active ? "" : kNotActive};
    }
  }
  for (auto& [name, entry] : found) listed.push_back(std::move(entry));
  for (ListedNetwork& entry : listed) entry.is_active = IsActive(hosts, entry.network.network_name);
  std::ranges::stable_sort(listed, {}, [](const ListedNetwork& entry) { return entry.network.name; });
  return listed;
}

}  // namespace vexa::networks
