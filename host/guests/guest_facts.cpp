// The resources of this host, and what its guests use of them.
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <map>
#include <utility>

#include "host/base/mutex.h"
#include "host/cluster/settings.h"
#include "host/domain_xml/domain_parse.h"
#include "host/guests/guest_control_impl.h"
#include "host/guests/host_networks.h"
#include "host/records/reader.h"
#include "host/records/request_scope.h"
#include "json/readers.h"
#include "webapi/platform/ccc.h"

namespace vexa::guests {
namespace {

namespace keys = VexaCCC::DB::_k;

// Calls `has` now for each string under `member` in the first `most` records, and returns a function that looks the
// results up. It returns false for all other strings.
std::function<bool(const std::string&)> MakeLookup(const std::vector<std::pair<std::string, Json::Value>>& records,
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

// The number of logical processors in the host's record; 0: unknown.
unsigned StoredCpuCount(const store::Store& store, const std::string& host_id) {
  const auto reader = records::Reader::Open(store);
  if (!reader) return 0;
  const auto host = reader->ReadObject(VexaCCC::DB::DashCate::Host.name(), host_id);
  return host ? static_cast<unsigned>(std::max(json::Int(json::Member(**host, keys::cpu_cores)), 0)) : 0;
}

bool FileExists(const std::string& path) { return ::access(path.c_str(), F_OK) == 0; }

}  // namespace

Result<records::Guest> LibvirtGuestControl::ReadGuestNow(const std::string& guest_id) const {
  const auto reader = records::Reader::Open(*options_.store);
  if (!reader) return reader.error();
  return records::ReadGuest(*reader, guest_id);
}

ResourceFacts LibvirtGuestControl::GatherFacts(const records::Guest& guest) {
  ResourceFacts facts;
  HostResources& resources = facts.resources;
  resources.host_id = options_.host_id;
  resources.vcpus_per_cpu = options_.vcpus_per_cpu;
  resources.is_connected = hypervisor_->IsConnected();
  std::function<bool(const std::string&)> has_network = options_.has_network;
  if (!IsTestMode()) {
    if (!has_network) has_network = HostNetworks([this] { return LibvirtNetworks(); });
    resources.has_file = MakeLookup(guest.records.disks, "path", domain_xml::kMaxDisks, FileExists);
  }
  if (has_network) {
    resources.has_network = MakeLookup(guest.records.nics, "network_name", domain_xml::kMaxNics, has_network);
  }
  // Read before the free memory, so that a guest which starts in between is counted by its run record.
  if (const auto runs = records::RunsOf(*options_.store, options_.host_id)) {
    for (const auto& [id, stored] : *runs) {
      if (!stored.run.starting && !stored.run.saved) facts.guests_already_deducted.insert(id);
    }
  }
  const auto node = GetNodeInfo();
  if (!node) {
    resources.is_connected = false;
    return facts;
  }
  resources.cpus = node->cpus;
  resources.free_memory_mib = node->memory_mib;
  if (!IsTestMode()) {
    if (const auto free = hypervisor_->FreeMemory()) resources.free_memory_mib = *free >> 20;
  }
  return facts;
}

Result<hypervisor::NodeInfo> LibvirtGuestControl::GetNodeInfo() {
  {
    const MutexLock lock(node_info_mutex_);
    if (node_info_) return *node_info_;
  }
  auto node = hypervisor_->GetNodeInfo();
  if (!node) return node.error();
  const MutexLock lock(node_info_mutex_);
  node_info_ = *node;
  return *node;
}

std::vector<std::string> LibvirtGuestControl::LibvirtNetworks() {
  auto networks = hypervisor_->Networks();
  return networks ? std::move(*networks) : std::vector<std::string>();
}

Status LibvirtGuestControl::AddAllocated(const std::string& except_guest_id, ResourceFacts& facts) const {
  const auto runs = records::RunsOf(*options_.store, options_.host_id);
  if (!runs) return runs.error();
  HostResources& resources = facts.resources;
  std::uint64_t memory_mib = 0;
  for (const auto& [id, stored] : *runs) {
    if (id == except_guest_id || stored.run.saved) continue;
    const records::Run& run = stored.run;
    resources.vcpus_taken += run.vcpus;
    resources.pinned_cpus.insert(resources.pinned_cpus.end(), run.pinned_cpus.begin(), run.pinned_cpus.end());
    // The free memory no longer includes the memory of guests that already ran, except in test mode, where guests use
    // none.
    if (IsTestMode() || !facts.guests_already_deducted.contains(id)) memory_mib += run.memory_mib;
  }
  resources.free_memory_mib -= std::min(resources.free_memory_mib, memory_mib);
  return {};
}

Result<Rating> LibvirtGuestControl::RateGuest(const std::string& guest_id) {
  const records::RequestPause pause;  // the hypervisor may be slow
  const Result<records::Guest> guest = ReadGuestNow(guest_id);
  if (!guest) return guest.error();
  ResourceFacts facts = GatherFacts(*guest);
  if (Status added = AddAllocated(guest_id, facts); !added) return added.error();
  Rating rating = Rate(*guest, facts.resources);
  const auto reader = records::Reader::Open(*options_.store);
  if (!reader) return reader.error();
  const Result<bool> placement = cluster::ReadPlacement(*reader, options_.host_id);
  if (!placement) rating.not_placed = placement.error().ToString();
  if (placement && !*placement) rating.not_placed = "An administrator has excluded the host from placement.";
  return rating;
}

// Uses the stored facts of the guest's host, so that the result is the same on every host.
Result<void, Refusal> LibvirtGuestControl::CheckPinsAvailable(const records::Guest& edited) {
  HostResources resources;
  resources.host_id = edited.host_id;
  resources.cpus = StoredCpuCount(*options_.store, edited.host_id);
  if (edited.host_id == options_.host_id) {
    if (const auto node = GetNodeInfo()) resources.cpus = node->cpus;
  }
  // Without facts about the host, nothing is refused.
  if (resources.cpus == 0) return {};
  const auto runs = records::RunsOf(*options_.store, edited.host_id);
  if (!runs) return RefusalOf(runs.error());
  for (const auto& [id, stored] : *runs) {
    const std::vector<unsigned>& pinned = stored.run.pinned_cpus;
    if (id != edited.records.id)
      resources.pinned_cpus.insert(resources.pinned_cpus.end(), pinned.begin(), pinned.end());
  }
  const Rating rating = Rate(edited, resources);
  const auto found = std::ranges::find(rating.refusals, host_error::kNoCpuThreads, &Refusal::code);
  if (found == rating.refusals.end()) return {};
  return Refusal{kNotPinned, found->reason};
}

}  // namespace vexa::guests
