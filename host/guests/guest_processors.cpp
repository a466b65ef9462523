// The processors of this host that its guests may use, and their weights.
//
// Processors that are dedicated to a guest are kept free of all other guests: a guest is started with the processors
// that are free then, and the reconciliation moves the ones that run when processors are dedicated or freed later. What
// a guest was last kept off is in its run record, so that a host which ended meanwhile continues from there.
#include <fmt/format.h>
#include <syslog.h>

#include <algorithm>
#include <iterator>

#include "host/base/guest_settings.h"
#include "host/guests/guest_control_impl.h"
#include "host/records/keys.h"
#include "host/records/object_members.h"
#include "json/readers.h"
#include "webapi/platform/ccc.h"
#include "webapi/platform/ccc_log.h"

namespace vexa::guests {
namespace {

using domain_xml::CpuSet;
using hypervisor::FailureKind;

constexpr std::int64_t kNormalWeight = 256;

std::int64_t WeightOf(const Json::Value& guest) {
  const Json::Value* const weight = json::FindMember(guest, keys::cpu_weight);
  return weight && weight->isInt64() ? json::Int64(*weight) : kNormalWeight;
}

CpuSet AllCpus(unsigned count) {
  CpuSet cpus;
  for (unsigned cpu = 0; cpu < count; ++cpu) cpus.insert(cpus.end(), cpu);
  return cpus;
}

CpuSet Without(const CpuSet& cpus, const CpuSet& others) {
  CpuSet rest;
  std::ranges::set_difference(cpus, others, std::inserter(rest, rest.end()));
  return rest;
}

// The processors dedicated to the run's guest, and to others.
CpuSet DedicatedIn(const records::Run& run) {
  CpuSet dedicated = run.kept_off.value_or(CpuSet());
  dedicated.insert(run.pinned_cpus.begin(), run.pinned_cpus.end());
  return dedicated;
}

}  // namespace

std::optional<std::string> LibvirtGuestControl::WhyNotWeight(std::int64_t weight) const {
  const std::int64_t most = hypervisor_->MaxCpuWeight();
  if (weight == kNormalWeight || weight <= most) return std::nullopt;
  if (most > 0) {
    return fmt::format("version 2 of control groups, which this host has, supports weights from {} to {}",
                       GuestSettingOf("cpu_weight").min, most);
  }
  return fmt::format(
      "guests of this host can only have {}, because its hypervisor '{}' runs without the rights that control groups "
      "need. A host with the hypervisor 'qemu:///system' supports weights",
      kNormalWeight, options_.hypervisor.mode);
}

Result<void, Refusal> LibvirtGuestControl::CheckWeight(std::int64_t weight) const {
  const auto why_not = WhyNotWeight(weight);
  if (!why_not) return {};
  return Refusal{kBadEdit, fmt::format("The parameter 'cpu_weight' is {}: {}", weight, *why_not)};
}

// Says so when a guest that has just been started does not have the weight of its record. It runs all the same: the
// record may be older than this check, or come from another host.
void LibvirtGuestControl::ReportWeight(const records::Guest& guest) {
  const std::int64_t weight = WeightOf(guest.records.guest);
  if (weight == kNormalWeight || IsTestMode()) return;
  std::optional<std::string> why_not = WhyNotWeight(weight);
  if (!why_not) {
    const auto actual = hypervisor_->CpuWeightOf(guest.records.id);
    if (actual && *actual == weight) return;
    why_not = actual ? fmt::format("it is {}", *actual) : actual.error().ToString();
  }
  ::syslog(LOG_WARNING, "The guest %s runs without its CPU weight of %lld: %s", guest.records.id.c_str(),
           static_cast<long long>(weight), why_not->c_str());
  LogToCluster(
      VexaCCC::CLOG_PRIORITY_FAILURE,
      fmt::format("The virtual machine [{}] runs without its CPU weight of {}: {}.", guest.name, weight, *why_not));
}

Result<CpuSet> LibvirtGuestControl::SharedCpus(const records::Run& run) {
  const CpuSet dedicated = DedicatedIn(run);
  if (dedicated.empty()) return CpuSet();
  const auto node = GetNodeInfo();
  if (!node) return node.error();
  return Without(AllCpus(node->cpus), dedicated);
}

Result<CpuSet> LibvirtGuestControl::DedicatedToOthers(const std::string& guest_id) const {
  const auto snapshot = options_.store->Read();
  if (!snapshot) return snapshot.error();
  const MutexLock lock(pins_mutex_);
  // The guests are reconciled one after the other, mostly at the same revision.
  if (pins_revision_ != (*snapshot)->revision()) {
    const auto runs = records::RunsOf(**snapshot, options_.host_id);
    if (!runs) return runs.error();
    pins_.clear();
    for (const auto& [id, stored] : *runs) {
      if (!stored.run.pinned_cpus.empty()) pins_.emplace(id, stored.run.pinned_cpus);
    }
    pins_revision_ = (*snapshot)->revision();
  }
  CpuSet dedicated;
  for (const auto& [id, pinned] : pins_) {
    if (id != guest_id) dedicated.insert(pinned.begin(), pinned.end());
  }
  return dedicated;
}

Status LibvirtGuestControl::KeepOffDedicatedCpus(const std::string& guest_id) {
  Result<CpuSet> dedicated = DedicatedToOthers(guest_id);
  if (!dedicated) return dedicated.error();
  const auto stored = records::ReadRun(*options_.store, guest_id);
  if (!stored) return stored.error();
  if (!*stored || (*stored)->run.host_id != options_.host_id || (*stored)->run.kept_off == *dedicated) return {};
  records::Run run = (*stored)->run;
  run.kept_off = *std::move(dedicated);
  const auto node = GetNodeInfo();
  if (!node) return node.error();
  const CpuSet shared = Without(AllCpus(node->cpus), DedicatedIn(run));
  const auto imported = ImportedDomain(guest_id);
  if (!imported) return imported.error();
  const domain_xml::OwnCpuSets own = *imported ? domain_xml::OwnCpuSetsOf((*imported)->xml) : domain_xml::OwnCpuSets();
  const hypervisor::CpuAffinity affinity{run.pinned_cpus, domain_xml::ConfineCpus(own.vcpus, shared),
                                         domain_xml::ConfineCpus(own.emulator, shared)};
  const auto moved = hypervisor_->SetAffinity(guest_id, affinity);
  if (!moved) {
    const FailureKind kind = moved.error().kind();
    // The guest has just ended, which the hypervisor reports by an event.
    if (kind == FailureKind::kNotRunning || kind == FailureKind::kNoSuchGuest) return {};
    return moved.error();
  }
  BeforeStep("reconcile: processors set");
  return PutRun(guest_id, *stored, run);
}

std::optional<std::string> LibvirtGuestControl::OwnersXmlInUse(const std::string& guest_id) {
  auto imported = ImportedDomain(guest_id);
  if (!imported || !*imported) return std::nullopt;
  const auto definition = hypervisor_->DefinitionOf(guest_id);
  if (!definition || definition->owner != hypervisor::Owner::kUser) return std::nullopt;
  return std::move((*imported)->xml);
}

std::uint64_t LibvirtGuestControl::PinnedVcpus(const std::string& guest_id, const records::Run& run) {
  if (!run.pinned_cpus.empty()) return run.pinned_cpus.size();
  const std::optional<std::string> owners_xml = OwnersXmlInUse(guest_id);
  return owners_xml ? domain_xml::PinnedVcpusOf(*owners_xml) : 0;
}

// After a run record was lost: the processors that this system had dedicated to the guest are in its definition.
std::vector<unsigned> LibvirtGuestControl::PinsToAdopt(const std::string& guest_id, std::uint64_t wanted) {
  const auto definition = hypervisor_->DefinitionOf(guest_id);
  if (!definition || definition->owner == hypervisor::Owner::kUser) return {};
  const auto xml = hypervisor_->RunningXmlOf(guest_id);
  const Result<CpuSet> others = DedicatedToOthers(guest_id);
  if (!xml || !others) return {};
  std::vector<unsigned> pinned = domain_xml::SingleCpusOf(*xml);
  // A virtual CPU that was moved may have a single processor as well.
  if (pinned.size() > wanted) pinned.resize(wanted);
  const bool is_shared = std::ranges::any_of(pinned, [&](unsigned cpu) { return others->contains(cpu); });
  return is_shared ? std::vector<unsigned>() : pinned;
}

void LibvirtGuestControl::WakeMaintenance() {
  const MutexLock lock(maintenance_mutex_);
  is_maintenance_due_ = true;
  maintenance_wake_.NotifyAll();
}

bool LibvirtGuestControl::AwaitMaintenance() {
  const auto end = std::chrono::steady_clock::now() + options_.maintenance_interval;
  const MutexLock lock(maintenance_mutex_);
  while (!stop_requested_ && !is_maintenance_due_ && maintenance_wake_.WaitUntil(maintenance_mutex_, end)) {
  }
  is_maintenance_due_ = false;
  return !stop_requested_;
}

}  // namespace vexa::guests
