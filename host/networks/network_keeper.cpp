#include "host/networks/network_keeper.h"

#include <fmt/format.h>
#include <syslog.h>

#include <algorithm>
#include <utility>

#include "host/base/sanitize_for_log.h"
#include "host/machine/bridge_files.h"
#include "host/machine/kernel_bridges.h"
#include "host/machine/machine.h"
#include "host/networks/network_changes.h"
#include "host/records/object_edit.h"
#include "json/readers.h"

namespace vexa::networks {
namespace {

using domain_xml::NetworkDefinition;
using domain_xml::ParsedNetwork;
using hypervisor::FailureKind;
using hypervisor::KnownNetwork;
using machine::BridgeKind;
using records::Network;
using records::NetworkCondition;
using records::NetworkKind;

constexpr std::size_t kMaxDisplayed = 128;

std::string Quoted(const std::string& text) { return "'" + SanitizeForLog(text, kMaxDisplayed) + "'"; }

NetworkCondition Ready(std::string reason = "") { return {records::kNetworkReady, std::move(reason)}; }
NetworkCondition Missing(std::string reason) { return {records::kNetworkMissing, std::move(reason)}; }
NetworkCondition Failed(const Error& error) { return {records::kNetworkFailed, error.ToString()}; }

// Whether a network with a subnet of its own must not overlap with the address's subnet.
bool BlocksSubnet(const machine::InterfaceAddress& address) {
  return !address.is_ipv6 && !address.ip.starts_with("127.") && !address.ip.starts_with("169.254.");
}

}  // namespace

struct NetworkKeeper::Pass {
  explicit Pass(hypervisor::Hypervisor& used) : hypervisor(used) {}

  hypervisor::Hypervisor& hypervisor;
  // Of libvirt, with what their XML says. Not set: they are unknown, for the reason in `libvirt_failure`.
  std::optional<std::vector<std::pair<KnownNetwork, ParsedNetwork>>> libvirt;
  std::string libvirt_failure;
  std::vector<std::string> bridges;  // of the machine
  // Bridges that this system has made, with the ids of their networks; also bridges that only have files yet.
  std::map<std::string, std::string> own_bridges;
  std::vector<records::StoredNetwork> networks;
  // The networks that this pass keeps in libvirt, and the ones that it keeps as bridges.
  std::set<std::string> libvirt_ids;
  std::set<std::string> bridge_ids;
  std::optional<Error> bridge_maker_failure;  // it does not answer
  records::NetworkReport report;

  bool HasBridge(const std::string& name) const { return std::ranges::find(bridges, name) != bridges.end(); }
  bool IsOwnBridge(const std::string& name, const std::string& id) const {
    const auto own = own_bridges.find(name);
    return own != own_bridges.end() && own->second == id;
  }
  const std::pair<KnownNetwork, ParsedNetwork>* Find(const std::string& name) const {
    const auto found = std::ranges::find_if(*libvirt, [&](const auto& one) { return one.first.name == name; });
    return found == libvirt->end() ? nullptr : &*found;
  }
};

NetworkKeeper::NetworkKeeper(NetworkKeeperOptions options) : options_(std::move(options)) {}

void NetworkKeeper::ReadLibvirt(Pass& pass) const {
  auto known = pass.hypervisor.KnownNetworks();
  if (!known) {
    const bool has_none = known.error().kind() == FailureKind::kUnsupported;
    pass.libvirt_failure =
        has_none ? "The hypervisor of this host has no networks of its own: use a bridge" : known.error().ToString();
    return;
  }
  pass.libvirt.emplace();
  for (KnownNetwork& network : *known) {
    ParsedNetwork parsed = domain_xml::ParseNetworkXml(network.xml);
    pass.libvirt->emplace_back(std::move(network), std::move(parsed));
  }
}

bool NetworkKeeper::IsOwn(const ParsedNetwork& network) const {
  return network.IsMarked() && network.host_id == options_.host_id;
}

void NetworkKeeper::ReadMachine(Pass& pass) const {
  if (options_.bridges == NetworkKeeperOptions::Bridges::kAllExist) return;
  machine::NetworkLinks links(options_.machine_root);
  for (std::string& name : machine::Machine(options_.machine_root).Names("/sys/class/net")) {
    if (links.KindOf(name) != BridgeKind::kNone) pass.bridges.push_back(std::move(name));
  }
  // systemd-networkd makes bridges without the alias.
  auto marked = machine::BridgesWithFiles(machine::Machine(options_.machine_root));
  for (const std::string& bridge : pass.bridges) {
    if (const auto mark = MarkOf(bridge)) marked[bridge] = *mark;
  }
  for (const auto& [bridge, mark] : marked) {
    if (mark.host_id == options_.host_id) pass.own_bridges.emplace(bridge, mark.network_id);
  }
}

void NetworkKeeper::AddDefault(const Pass& pass) const {
  // Without knowing what there is, nothing is added.
  if (!pass.libvirt) return;
  const bool has_networks = !pass.libvirt->empty() || !pass.bridges.empty();
  const auto added = AddDefaultNetwork(*options_.store, has_networks ? HostHasNetworks::kYes : HostHasNetworks::kNo,
                                       options_.host_id, pass.report);
  if (added && *added) {
    ::syslog(LOG_NOTICE, "The network 'default' was added, because this host had neither networks nor bridges.");
  }
}

Status NetworkKeeper::ReadRecords(Pass& pass) const {
  const auto snapshot = options_.store->Read();
  if (!snapshot) return snapshot.error();
  auto networks = records::ReadNetworks(**snapshot);
  if (!networks) return networks.error();
  pass.networks = std::move(*networks);
  return {};
}

NetworkCondition NetworkKeeper::KeepInLibvirt(Pass& pass, const Network& network, NetworkDefinition definition) const {
  pass.libvirt_ids.insert(network.id);
  if (!pass.libvirt) return {records::kNetworkFailed, pass.libvirt_failure};
  definition.name = network.network_name;
  definition.id = network.id;
  definition.host_id = options_.host_id;
  const auto* const known = pass.Find(network.network_name);
  if (known && !IsOwn(known->second)) {
    return known->first.is_active ? Ready() : Ready(kNotActive);
  }
  const bool is_current = known && known->first.is_persistent && known->second.id == network.id &&
                          known->second.definition == definition.Summary();
  if (!is_current) {
    if (known && known->first.is_in_use) return Ready("A change waits until no running guest is in the network");
    if (known) {
      definition.uuid = known->second.uuid;
      const auto stopped = pass.hypervisor.StopNetwork(network.network_name);
      if (!stopped) return Failed(stopped.error());
    }
    const auto defined = pass.hypervisor.DefineNetwork(domain_xml::BuildNetworkXml(definition));
    if (!defined) return Failed(defined.error());
    ::syslog(LOG_NOTICE, "The network %s was defined in libvirt: %s.", Quoted(network.network_name).c_str(),
             definition.Summary().c_str());
  }
  if (is_current && known->first.is_active) return Ready();
  const auto started = pass.hypervisor.StartNetwork(network.network_name);
  return started ? Ready() : Failed(started.error());
}

NetworkCondition NetworkKeeper::KeepBridge(Pass& pass, const Network& network) const {
  if (options_.bridges == NetworkKeeperOptions::Bridges::kAllExist) return Ready();
  pass.bridge_ids.insert(network.id);
  const std::string& name = network.network_name;
  const std::string& uplink = network.UplinkOn(options_.host_id);
  const bool exists = pass.HasBridge(name);
  const bool is_used_as_it_is = exists && network.kind == NetworkKind::kBridge && !pass.IsOwnBridge(name, network.id);
  if (is_used_as_it_is) return Ready();
  if (uplink.empty() || !options_.bridge_maker.make) {
    if (exists) return Ready();
    return Missing(fmt::format("The host has no bridge {}: make it{}", Quoted(name),
                               uplink.empty() ? ", or give the network an uplink" : ""));
  }
  const machine::BridgeRequest request{network.id, options_.host_id, name,
                                       uplink,     network.vlan_id,  network.move_addresses};
  if (exists && IsMade(request)) return Ready();
  const Status made = MakeBridge(pass, request);
  if (made) {
    ::syslog(LOG_NOTICE, "The bridge %s was made for the network %s.", Quoted(name).c_str(),
             Quoted(network.name).c_str());
    return Ready();
  }
  const ErrorCode code = made.error().code();
  // Guests are still on the bridge as it was before the edit.
  if (code == ErrorCode::kBusy && exists) return Ready("A change waits: " + made.error().ToString());
  const bool is_missing = code == ErrorCode::kNotFound || code == ErrorCode::kDenied || code == ErrorCode::kUnavailable;
  return is_missing ? Missing(made.error().ToString()) : Failed(made.error());
}

// A service that hangs is asked once in a pass.
Status NetworkKeeper::MakeBridge(Pass& pass, const machine::BridgeRequest& request) const {
  if (pass.bridge_maker_failure) return *pass.bridge_maker_failure;
  Status made = options_.bridge_maker.make(request);
  if (!made && made.error().code() == ErrorCode::kUnavailable) pass.bridge_maker_failure = made.error();
  return made;
}

// Whether the bridge, which exists, is as requested, as far as sysfs shows; its maker does not have to be asked then.
bool NetworkKeeper::IsMade(const machine::BridgeRequest& request) const {
  if (MarkOf(request.bridge) != machine::BridgeMark{request.network_id, request.host_id}) return false;
  const machine::NetworkLinks links(options_.machine_root);
  if (request.vlan_id == 0) return links.MasterOf(request.uplink) == request.bridge;
  const std::string vlan = machine::VlanInterface(request);
  return links.MasterOf(vlan) == request.bridge &&
         machine::Machine(options_.machine_root).IsFolder("/sys/class/net/" + vlan + "/lower_" + request.uplink);
}

std::optional<machine::BridgeMark> NetworkKeeper::MarkOf(const std::string& interface) const {
  return machine::ParseBridgeAlias(
      machine::Machine(options_.machine_root).ReadLine("/sys/class/net/" + interface + "/ifalias"));
}

// Removes bridges that this host has made and that are not for a network any more. One that running guests are on stays
// until they are off.
void NetworkKeeper::RemoveStaleBridges(const Pass& pass) {
  if (!options_.bridge_maker.remove || pass.bridge_maker_failure) return;
  const machine::Machine machine(options_.machine_root);
  for (const auto& [bridge, id] : pass.own_bridges) {
    if (pass.bridge_ids.contains(id) || IsStopping()) continue;
    const auto ports = machine.Names("/sys/class/net/" + bridge + "/brif");
    const bool is_in_use = std::ranges::any_of(ports, [&](const std::string& port) {
      return machine.Read("/sys/class/net/" + port + "/tun_flags").has_value();
    });
    if (is_in_use) continue;
    const Status removed = options_.bridge_maker.remove({id, options_.host_id, bridge, "", 0, false});
    LogRemoval("bridge " + Quoted(bridge), "", removed ? "" : removed.error().ToString());
    if (!removed && removed.error().code() == ErrorCode::kUnavailable) return;
  }
}

void NetworkKeeper::LogRemoval(const std::string& what, const std::string& where, const std::string& failure) {
  if (failure.empty()) {
    failed_removals_.erase(what);
    ::syslog(LOG_NOTICE, "The %s was removed%s.", what.c_str(), where.c_str());
    return;
  }
  if (std::exchange(failed_removals_[what], failure) == failure) return;
  ::syslog(LOG_ERR, "The %s cannot be removed: %s.", what.c_str(), SanitizeForLog(failure, 512).c_str());
}

NetworkCondition NetworkKeeper::KeepOne(Pass& pass, const Network& network) const {
  if (network.kind == NetworkKind::kBridge) return KeepBridge(pass, network);
  NetworkDefinition definition;
  if (records::HasSubnet(network.kind)) {
    definition.subnet = ParseIpv4Subnet(network.subnet);
    definition.has_nat = network.kind == NetworkKind::kNat;
    return KeepInLibvirt(pass, network, std::move(definition));
  }
  const std::string& uplink = network.UplinkOn(options_.host_id);
  if (uplink.empty()) return Missing("The network has no uplink on this host");
  if (options_.bridges == NetworkKeeperOptions::Bridges::kAllExist) {
    definition.device = uplink;
    return network.kind == NetworkKind::kMacvtap ? KeepInLibvirt(pass, network, std::move(definition)) : Ready();
  }
  machine::NetworkLinks links(options_.machine_root);
  if (!links.Exists(uplink)) return Missing(fmt::format("The host has no interface {}", Quoted(uplink)));
  if (network.kind == NetworkKind::kMacvtap) {
    definition.device = uplink;
    return KeepInLibvirt(pass, network, std::move(definition));
  }
  if (links.KindOf(uplink) == BridgeKind::kSwitch) {
    definition.switch_bridge = uplink;
    definition.vlan_id = network.vlan_id;
    return KeepInLibvirt(pass, network, std::move(definition));
  }
  return KeepBridge(pass, network);
}

void NetworkKeeper::KeepOrLeave(Pass& pass, const records::StoredNetwork& stored) const {
  // A damaged record is left alone; readers of the list see the damage.
  if (stored.damage.empty()) pass.report.conditions[stored.network.id] = KeepOne(pass, stored.network);
  // What the host has of a network that it cannot keep now stays as it is.
  if (pass.libvirt_ids.contains(stored.network.id) || pass.bridge_ids.contains(stored.network.id)) return;
  pass.libvirt_ids.insert(stored.network.id);
  pass.bridge_ids.insert(stored.network.id);
}

// Removes networks of libvirt that this host has made and that are not needed any more. One that running guests are in
// stays until they are off.
void NetworkKeeper::RemoveStale(const Pass& pass) {
  if (!pass.libvirt) return;
  for (const auto& [known, parsed] : *pass.libvirt) {
    if (!IsOwn(parsed) || known.is_in_use || pass.libvirt_ids.contains(parsed.id) || IsStopping()) continue;
    auto removed = pass.hypervisor.StopNetwork(known.name);
    if (removed && known.is_persistent) removed = pass.hypervisor.UndefineNetwork(known.name);
    LogRemoval("network " + Quoted(known.name), " from libvirt", removed ? "" : removed.error().ToString());
  }
}

void NetworkKeeper::Report(Pass& pass) const {
  static const std::vector<std::pair<KnownNetwork, ParsedNetwork>> kNone;
  const auto& libvirt = pass.libvirt ? *pass.libvirt : kNone;
  // Bridges that libvirt has made for its networks, whose subnets are known as those of the networks.
  std::set<std::string> libvirt_bridges;
  for (const auto& [known, parsed] : libvirt) {
    if (parsed.kind != "bridge") libvirt_bridges.insert(parsed.bridge);
    if (!IsOwn(parsed)) pass.report.found.push_back({known.name, parsed.kind, parsed.subnet, known.is_active});
  }
  for (const std::string& bridge : pass.bridges) {
    if (libvirt_bridges.contains(bridge) || pass.own_bridges.contains(bridge)) continue;
    pass.report.found.push_back({bridge, "bridge", "", true});
  }
  std::set<std::string> subnets;
  if (options_.bridges == NetworkKeeperOptions::Bridges::kOfMachine) {
    for (const machine::InterfaceAddress& address : options_.addresses()) {
      if (!BlocksSubnet(address) || libvirt_bridges.contains(address.interface)) continue;
      if (const auto subnet = SubnetOf(address.ip, address.mask)) subnets.insert(subnet->ToString());
    }
  }
  pass.report.subnets.assign(subnets.begin(), subnets.end());
}

void NetworkKeeper::LogChanges(const Pass& pass) {
  std::map<std::string, NetworkCondition> logged;
  for (const records::StoredNetwork& stored : pass.networks) {
    const auto found = pass.report.conditions.find(stored.network.id);
    if (found == pass.report.conditions.end()) continue;
    const NetworkCondition& condition = found->second;
    const auto before = last_logged_.find(stored.network.id);
    const bool was_ready = before == last_logged_.end() || before->second.state == records::kNetworkReady;
    const bool is_ready = condition.state == records::kNetworkReady;
    const std::string name = Quoted(stored.network.name);
    if (!is_ready && (was_ready || before->second != condition)) {
      ::syslog(LOG_WARNING, "Guests cannot be started with the network %s: %s.", name.c_str(),
               SanitizeForLog(condition.reason, 512).c_str());
    } else if (is_ready && !was_ready) {
      ::syslog(LOG_NOTICE, "Guests can be started with the network %s again.", name.c_str());
    }
    logged.emplace(stored.network.id, condition);
  }
  last_logged_ = std::move(logged);
}

void NetworkKeeper::LogOnce(const std::string& sentence) {
  if (std::exchange(last_error_, sentence) == sentence || sentence.empty()) return;
  ::syslog(LOG_ERR, "The networks of this host cannot be kept: %s.", sentence.c_str());
}

void NetworkKeeper::Keep(hypervisor::Hypervisor& hypervisor) {
  const MutexLock keeping(keeping_);
  if (options_.store->health() == store::Health::kInaccessible) return;
  Pass pass(hypervisor);
  ReadLibvirt(pass);
  ReadMachine(pass);
  Report(pass);
  AddDefault(pass);
  if (const Status read = ReadRecords(pass); !read) return LogOnce(read.error().ToString());
  // What was read after the database was lost may be old, and nothing is removed because of it.
  if (options_.store->health() == store::Health::kInaccessible) return;
  for (const records::StoredNetwork& stored : pass.networks) {
    if (IsStopping()) return;
    KeepOrLeave(pass, stored);
  }
  RemoveStale(pass);
  RemoveStaleBridges(pass);
  if (IsStopping()) return;
  LogChanges(pass);
  const std::string text = json::ToText(records::NetworkReportToJson(pass.report));
  const std::string key = records::NetworkReportKey(options_.host_id);
  const Status written =
      records::CommitWithRetry(*options_.store, [&](const records::Reader& reader) -> Result<store::Transaction> {
        store::Transaction transaction;
        const auto before = reader.Get(key);
        if (!before) return before.error();
        if (before->has_value() && (*before)->text == text) return transaction;
        if (options_.guard) transaction.compares.push_back(options_.guard());
        transaction.operations.push_back({key, text});
        return transaction;
      });
  LogOnce(written ? "" : written.error().ToString());
}

}  // namespace vexa::networks
