// Gives guests virtual functions of network cards (SR-IOV), for interfaces with "prefer_sriov".
//
// They are chosen when the guest starts, and are in its run record as long as it runs. An interface that cannot have
// one is attached to its bridge like any other, and administrators learn why.
#include <fmt/format.h>
#include <syslog.h>

#include <algorithm>

#include "host/domain_xml/domain_devices.h"
#include "host/guests/guest_control_impl.h"
#include "host/guests/host_networks.h"
#include "host/machine/virtual_functions.h"
#include "host/records/guest_records.h"
#include "host/records/keys.h"
#include "json/readers.h"
#include "webapi/platform/ccc.h"
#include "webapi/platform/ccc_log.h"

namespace vexa::guests {
namespace {

// The interface's wish, and what the host has for it.
struct Candidates {
  std::vector<std::string> addresses;
  std::string why_none;
};

// Only a bridge of the kernel leads to a card: a function of the card is in the network that the bridge's guests are
// in.
Candidates FindCandidates(const std::string& root, const std::string& network) {
  const HostNetworks networks(nullptr, root);
  if (networks.KindOf(network) != machine::BridgeKind::kLinux) {
    return {{}, fmt::format("the network '{}' is not a bridge of the host with a network card", network)};
  }
  Candidates found;
  machine::NetworkLinks links(root);
  int total = 0;
  for (const machine::Uplink& uplink : links.UplinksOf(network)) {
    const machine::VirtualFunctions functions = machine::FindVirtualFunctions(root, uplink.name);
    total += functions.total;
    found.addresses.insert(found.addresses.end(), functions.usable.begin(), functions.usable.end());
  }
  if (!found.addresses.empty()) return found;
  found.why_none = total == 0 ? fmt::format("the network card of the bridge '{}' has no virtual functions", network)
                              : fmt::format(
                                    "none of the {} virtual functions of the bridge '{}' can be given to a guest: "
                                    "the host uses them, or has no IOMMU",
                                    total, network);
  return found;
}

}  // namespace

void LibvirtGuestControl::FindVirtualFunctions(StartAttempt& attempt) {
  const bool is_faked = !options_.system_root.empty();
  if ((IsTestMode() && !is_faked) || attempt.IsSaved()) return;
  const std::size_t count = std::min(attempt.guest.records.nics.size(), std::size_t{domain_xml::kMaxNics});
  for (std::size_t i = 0; i < count; ++i) {
    const auto& [id, nic] = attempt.guest.records.nics[i];
    const std::string network = json::StringMember(nic, "network_name");
    if (!json::Bool(json::Member(nic, keys::prefer_sriov)) || network.empty()) continue;
    StartAttempt::WantedFunction wanted{id, network, {}, ""};
    if (attempt.imported) {
      wanted.why_none = "the definition that it was imported with says what it is attached to";
    } else if (hypervisor_->CpuSharesSupport() == domain_xml::CpuShares::kOmitted) {
      wanted.why_none =
          fmt::format("the hypervisor '{}' runs without the right to give devices to guests", options_.hypervisor.mode);
    } else {
      Candidates found = FindCandidates(options_.system_root, network);
      wanted.addresses = std::move(found.addresses);
      wanted.why_none = std::move(found.why_none);
    }
    attempt.wanted_functions.push_back(std::move(wanted));
  }
}

Status LibvirtGuestControl::ReserveVirtualFunctions(StartAttempt& attempt) const {
  if (attempt.wanted_functions.empty()) return {};
  const auto runs = records::RunsOf(*options_.store, options_.host_id);
  if (!runs) return runs.error();
  std::set<std::string> taken;
  for (const auto& [id, stored] : *runs) {
    if (id == attempt.guest.records.id) continue;
    for (const auto& [nic, function] : stored.run.virtual_functions) taken.insert(function.address);
  }
  for (StartAttempt::WantedFunction& wanted : attempt.wanted_functions) {
    const auto free =
        std::ranges::find_if(wanted.addresses, [&](const std::string& address) { return !taken.contains(address); });
    if (free != wanted.addresses.end()) {
      taken.insert(*free);
      attempt.run.virtual_functions.emplace(wanted.nic, records::VirtualFunction{*free, wanted.network});
    } else if (wanted.why_none.empty()) {
      wanted.why_none = fmt::format("other guests have all {} virtual functions of the bridge '{}'",
                                    wanted.addresses.size(), wanted.network);
    }
  }
  return {};
}

// A running guest keeps the function of an interface for as long as its record asks for it in the same network.
void LibvirtGuestControl::DropUnwantedFunctions(const records::Guest& guest, const std::string& running_xml,
                                                records::Run& run) {
  const std::map<std::string, std::string> in_use = domain_xml::VirtualFunctionsIn(running_xml);
  const auto is_wanted = [&](const auto& item) {
    const records::VirtualFunction& function = item.second;
    const auto nic = std::ranges::find(guest.records.nics, item.first, [](const auto& part) { return part.first; });
    if (nic == guest.records.nics.end()) return false;
    std::string mac = json::StringMember(nic->second, keys::mac_address);
    std::ranges::transform(mac, mac.begin(),
                           [](char c) { return c >= 'A' && c <= 'F' ? static_cast<char>(c | 32) : c; });
    const auto used = in_use.find(mac);
    return used != in_use.end() && used->second == function.address &&
           json::Bool(json::Member(nic->second, keys::prefer_sriov)) &&
           json::StringMember(nic->second, "network_name") == function.network;
  };
  std::erase_if(run.virtual_functions, [&](const auto& item) { return !is_wanted(item); });
}

// Frees the functions that a running guest has given back.
Status LibvirtGuestControl::FreeVirtualFunctions(const std::string& guest_id) {
  const auto stored = records::ReadRun(*options_.store, guest_id);
  if (!stored) return stored.error();
  if (!*stored || (*stored)->run.host_id != options_.host_id || (*stored)->run.virtual_functions.empty()) return {};
  const auto xml = hypervisor_->RunningXmlOf(guest_id);
  if (!xml) {
    const hypervisor::FailureKind kind = xml.error().kind();
    // The guest has just ended, which the hypervisor reports by an event.
    const bool has_ended =
        kind == hypervisor::FailureKind::kNotRunning || kind == hypervisor::FailureKind::kNoSuchGuest;
    return has_ended ? Status() : Status(xml.error());
  }
  std::set<std::string> in_use;
  for (const auto& [mac, address] : domain_xml::VirtualFunctionsIn(*xml)) in_use.insert(address);
  records::Run run = (*stored)->run;
  std::erase_if(run.virtual_functions, [&](const auto& item) { return !in_use.contains(item.second.address); });
  if (run.virtual_functions.size() == (*stored)->run.virtual_functions.size()) return {};
  BeforeStep("reconcile: functions freed");
  return PutRun(guest_id, *stored, run);
}

void LibvirtGuestControl::ReportVirtualFunctions(const StartAttempt& attempt) {
  for (const StartAttempt::WantedFunction& wanted : attempt.wanted_functions) {
    if (attempt.run.virtual_functions.contains(wanted.nic)) continue;
    ::syslog(LOG_WARNING, "The network interface %s of the guest %s got no virtual function: %s", wanted.nic.c_str(),
             attempt.guest.records.id.c_str(), wanted.why_none.c_str());
    LogToCluster(VexaCCC::CLOG_PRIORITY_FAILURE,
                 fmt::format("The virtual machine [{}] is attached to the network [{}] without a virtual function: {}.",
                             attempt.guest.name, wanted.network, wanted.why_none));
  }
}

}  // namespace vexa::guests
