// What this host has for guests, and what they have taken of it.
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <map>
#include <utility>

#include "host/domain_xml/domain_xml.h"
#include "host/guests/guest_control_impl.h"
#include "host/guests/host_networks.h"
#include "host/records/reading.h"
#include "json/readers.h"
#include "webapi/platform/ccc.h"

namespace vexa::guests {
namespace {

namespace keys = VexaCCC::DB::_k;

// The current results of `has` for the texts under `member` in the first `most` records. All others count as absent.
std::function<bool(const std::string&)> AskAll(const std::vector<std::pair<std::string, Json::Value>>& records,
                                               const char* member, std::size_t most,
                                               const std::function<bool(const std::string&)>& has) {
  std::map<std::string, bool> answers;
  const std::size_t count = std::min(records.size(), most);
  for (std::size_t i = 0; i < count; ++i) {
    const Json::Value& value = json::Member(records[i].second, member);
    const std::string text = value.isString() ? json::String(value) : std::string();
    if (!text.empty() && !answers.contains(text)) answers.emplace(text, has(text));
  }
  return [answers = std::move(answers)](const std::string& text) {
    const auto answer = answers.find(text);
    return answer != answers.end() && answer->second;
  };
}

bool IsThere(const std::string& path) { return ::access(path.c_str(), F_OK) == 0; }

}  // namespace

Facts LibvirtGuestControl::GatherFacts(const Guest& guest) {
  Facts facts;
  HostResources& resources = facts.resources;
  resources.host_id = options_.host_id;
  resources.vcpus_per_cpu = options_.vcpus_per_cpu;
  resources.is_connected = hypervisor_->IsConnected();
  std::function<bool(const std::string&)> has_network = options_.has_network;
  if (!ForgetsGuests()) {
    if (!has_network) has_network = HostNetworks([this] { return LibvirtNetworks(); });
    resources.has_file = AskAll(guest.records.disks, "path", hypervisor::kMaxDisks, IsThere);
  }
  if (has_network) {
    resources.has_network = AskAll(guest.records.nics, "network_name", hypervisor::kMaxNics, has_network);
  }
  // Before the memory: guests that start running from now on are counted by their records.
  if (const auto runs = RunsOf(*options_.store, options_.host_id)) {
    for (const auto& [id, stored] : *runs) {
      if (!stored.run.starting && !stored.run.saved) facts.counted_runs.insert(id);
    }
  }
  const auto node = NodeFigures();
  if (!node) {
    resources.is_connected = false;
    return facts;
  }
  resources.cpus = node->cpus;
  resources.free_memory_mib = node->memory_mib;
  if (!ForgetsGuests()) {
    if (const auto free = hypervisor_->FreeMemory()) resources.free_memory_mib = *free >> 20;
  }
  return facts;
}

Result<hypervisor::Node> LibvirtGuestControl::NodeFigures() {
  {
    const std::lock_guard lock(node_mutex_);
    if (node_) return *node_;
  }
  auto node = hypervisor_->NodeFigures();
  if (!node) return node.failure().error();
  const std::lock_guard lock(node_mutex_);
  node_ = *node;
  return *node;
}

std::vector<std::string> LibvirtGuestControl::LibvirtNetworks() {
  auto networks = hypervisor_->Networks();
  return networks ? std::move(*networks) : std::vector<std::string>();
}

Status LibvirtGuestControl::AddTaken(const std::string& except_guest_id, Facts& facts) const {
  const auto runs = RunsOf(*options_.store, options_.host_id);
  if (!runs) return runs.error();
  HostResources& resources = facts.resources;
  std::uint64_t memory_mib = 0;
  for (const auto& [id, stored] : *runs) {
    if (id == except_guest_id || stored.run.saved) continue;
    const Run& run = stored.run;
    resources.vcpus_taken += run.vcpus;
    resources.pinned_cpus.insert(resources.pinned_cpus.end(), run.pinned_cpus.begin(), run.pinned_cpus.end());
    // The memory of the other guests is no longer part of the free memory, unless guests take none.
    if (ForgetsGuests() || !facts.counted_runs.contains(id)) memory_mib += run.memory_mib;
  }
  resources.free_memory_mib -= std::min(resources.free_memory_mib, memory_mib);
  return {};
}

Result<Rating> LibvirtGuestControl::RateGuest(const std::string& guest_id) {
  const Result<Guest> guest = ReadGuest(guest_id);
  if (!guest) return guest.error();
  cluster::RequestScope::ReleaseSnapshot();
  Facts facts = GatherFacts(*guest);
  if (Status added = AddTaken(guest_id, facts); !added) return added.error();
  return Rate(*guest, facts.resources);
}

// Based on the stored data of the guest's host, so that every host returns the same.
Refused LibvirtGuestControl::RatePins(const Guest& edited) {
  HostResources resources;
  resources.host_id = edited.host_id;
  const auto host = cluster::ReadObject(VexaCCC::DB::DashCate::Host.name(), edited.host_id);
  if (host) resources.cpus = static_cast<unsigned>(std::max(json::Int(json::Member(**host, keys::cpu_cores)), 0));
  cluster::RequestScope::ReleaseSnapshot();
  if (edited.host_id == options_.host_id) {
    if (const auto node = NodeFigures()) resources.cpus = node->cpus;
  }
  // An unknown host is not judged.
  if (resources.cpus == 0) return {};
  const auto runs = RunsOf(*options_.store, edited.host_id);
  if (!runs) return RefusalOf(runs.error());
  for (const auto& [id, stored] : *runs) {
    const std::vector<unsigned>& pinned = stored.run.pinned_cpus;
    if (id != edited.records.id)
      resources.pinned_cpus.insert(resources.pinned_cpus.end(), pinned.begin(), pinned.end());
  }
  const Rating rating = Rate(edited, resources);
  const auto found = std::ranges::find(rating.refusals, kNoCpuThreads, &Refusal::code);
  if (found == rating.refusals.end()) return {};
  return Refusal{kNotPinned, found->reason};
}

}  // namespace vexa::guests
