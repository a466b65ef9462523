// Starts the guests of this host.
#include <fmt/format.h>

#include <syslog.h>

#include <algorithm>
#include <set>
#include <utility>

#include "host/base/mutex.h"
#include "host/base/sanitize_for_log.h"
#include "host/guests/guest_control_impl.h"
#include "host/guests/jobs/guest_locks.h"
#include "host/records/host_claim_record.h"
#include "host/records/keys.h"
#include "host/records/object_edit.h"
#include "json/readers.h"
#include "webapi/platform/ccc.h"
#include "webapi/platform/ccc_state.h"

namespace vexa::guests {
namespace {

using hypervisor::FailureKind;
using hypervisor::Owner;

constexpr std::size_t kMaxLoggedName = 64;

// Not set: the guest's state is not a result of this start, for instance because it runs already or is busy.
std::optional<records::ShutdownCause> CauseOfStartFailure(int code) {
  using enum records::ShutdownCause;
  switch (code) {
    case host_error::kTooManyVcpus:
    case host_error::kNoMemory:
    case host_error::kNoCpuThreads:
      return kNoResources;
    case host_error::kNoNetwork:
      return kBootNoNetwork;
    case host_error::kUnavailable:
      return kBootNoStorage;
    case host_error::kFailed:
    case host_error::kIncompatibleCpu:
      return kBootRefused;
    case host_error::kAlreadyRunning:
    case host_error::kOnOtherHost:
    case host_error::kBusy:
    case host_error::kNotRunning:
      return std::nullopt;
    default:
      return kBootFailed;
  }
}

}  // namespace

Result<void, Refusal> LibvirtGuestControl::PowerOn(const std::string& guest_id, const Requester& requester) {
  return ForgetAutorun(guest_id, StartAs("poweron", guest_id, requester, StartFrom::kAnything));
}

Result<void, Refusal> LibvirtGuestControl::Restore(const std::string& guest_id, const Requester& requester) {
  return ForgetAutorun(guest_id, StartAs("restore", guest_id, requester, StartFrom::kSavedMemory));
}

Result<void, Refusal> LibvirtGuestControl::StartAs(std::string_view action, const std::string& guest_id,
                                                   const Requester& requester, StartFrom from) {
  return Perform(guest_id, action, requester, [&] {
    Result<void, Refusal> started = StartGuest(guest_id, from);
    if (started.ok()) return started;
    // The reconciliation that follows stores why the guest is off.
    const auto cause = CauseOfStartFailure(started.error().code);
    // If the guest was powered off meanwhile, that is the reason, regardless of the error that the start returns.
    if (cause && !end_reasons_.Expected(guest_id)) end_reasons_.Expect(guest_id, {*cause, false});
    return started;
  });
}

Result<void, Refusal> LibvirtGuestControl::StartGuest(const std::string& guest_id, StartFrom from) {
  const Starts::Start start(starts_, guest_id);
  StartAttempt attempt;
  if (const auto allowed = Prepare(guest_id, attempt); !allowed.ok()) return allowed;
  if (from == StartFrom::kSavedMemory && !attempt.IsSaved()) {
    return Refusal{host_error::kNotRunning, "The guest has no saved memory"};
  }
  end_reasons_.Forget(guest_id);
  if (const auto allowed = Reserve(attempt); !allowed.ok()) return allowed;
  BeforeStep("poweron: reserved");
  if (!attempt.IsSaved()) GrowImages(attempt.guest);
  // From now on the guest cannot be given to another host; changes made before count.
  Result<records::Guest> current = ReadGuestNow(guest_id);
  if (!current) return RefusalOf(current.error());
  if (current->records.guest != attempt.guest.records.guest) {
    return Refusal{host_error::kBusy, "The guest has just been changed. Try again"};
  }
  attempt.guest = std::move(*current);
  // The stored state is only for readers: a failure to store it does not stop the start.
  (void)Observe(guest_id, VexaCCC::State::Guest::booting, sequencer_.Next());
  return StartReserved(attempt, start);
}

Result<void, Refusal> LibvirtGuestControl::Prepare(const std::string& guest_id, StartAttempt& attempt) {
  const auto read = [&]() -> Result<void, Refusal> {
    Result<records::Guest> guest = ReadGuestNow(guest_id);
    if (!guest) return RefusalOf(guest.error());
    attempt.guest = std::move(*guest);
    return {};
  };
  if (const auto allowed = read(); !allowed.ok()) return allowed;
  if (attempt.guest.host_id != options_.host_id) {
    return OnOtherHost(attempt.guest.host_id);
  }
  const auto state = hypervisor_->StateOf(guest_id);
  if (!state && state.error().kind() != FailureKind::kNoSuchGuest) return RefusalOf(state.error());
  if (state && *state == hypervisor::GuestState::kPaused) {
    return Refusal{host_error::kAlreadyRunning, "The guest is suspended. Resume it with 'vexa guest resume'"};
  }
  if (state && IsActive(*state)) return Refusal{host_error::kAlreadyRunning, "The guest runs"};
  // Cleans up after an earlier run first, and records its end.
  Reconcile(guest_id);
  if (const auto allowed = CheckNotFenced(guest_id); !allowed.ok()) return allowed;
  if (const auto allowed = read(); !allowed.ok()) return allowed;
  auto definition = hypervisor_->DefinitionOf(guest_id);
  if (!definition && definition.error().kind() != FailureKind::kNoSuchGuest) return RefusalOf(definition.error());
  if (definition) attempt.definition = std::move(*definition);
  auto imported = ImportedDomain(guest_id);
  if (!imported) return RefusalOf(imported.error());
  attempt.imported = std::move(*imported);
  if (const auto allowed = CheckDefinitionOwner(attempt); !allowed.ok()) return allowed;
  if (attempt.definition && attempt.definition->owner == Owner::kUser && !attempt.IsSaved()) {
    if (const Status kept = SaveOriginalDefinition(guest_id); !kept) return RefusalOf(kept.error());
  }
  if (const auto allowed = CheckStorageMounted(attempt.guest); !allowed.ok()) return allowed;
  if (!attempt.IsSaved()) {
    if (const auto allowed = CheckNvramExists(attempt.guest); !allowed.ok()) return allowed;
  }
  attempt.facts = GatherFacts(attempt.guest);
  FindVirtualFunctions(attempt);
  return {};
}

// Refuses a definition that was made without this system and not handed over to it by an import.
Result<void, Refusal> LibvirtGuestControl::CheckDefinitionOwner(const StartAttempt& attempt) const {
  if (!attempt.definition || attempt.definition->owner != Owner::kUser || attempt.imported) return {};
  return Refusal{host_error::kFailed,
                 "libvirt has a definition of the guest that VEXA did not make. It was left unchanged. Import the "
                 "guest from libvirt ('vexa import --all URI --replace'), or undefine it with 'virsh undefine "
                 "--keep-nvram'"};
}

// While storage is not mounted, files at the same paths do not belong to the guest.
Result<void, Refusal> LibvirtGuestControl::CheckStorageMounted(const records::Guest& guest) const {
  if (guest.repository_host_id != options_.host_id) return {};
  std::vector<std::string> paths;
  for (const auto& [id, disk] : guest.records.disks) {
    const Json::Value& path = json::Member(disk, "path");
    if (path.isString()) paths.push_back(json::String(path));
  }
  const Json::Value& nvram = json::Member(guest.records.guest, records::kNvramMember);
  if (nvram.isString()) paths.push_back(json::String(nvram));
  if (const auto allowed = storage_->CheckFolders(guest.repository_id, paths, storage::StorageUse::kExisting);
      !allowed.ok())
    return allowed;
  return paths.empty() ? Result<void, Refusal>() : storage_->CheckStorageForStart(guest.repository_id);
}

Result<void, Refusal> LibvirtGuestControl::Reserve(StartAttempt& attempt) {
  const records::Guest& guest = attempt.guest;
  const std::string& guest_id = guest.records.id;
  const MutexLock lock(allocation_mutex_);
  const auto stored = records::ReadRun(*options_.store, guest_id);
  if (!stored) return RefusalOf(stored.error());
  // A saved guest holds no resources, so its host may start it.
  const bool is_kept_here = *stored && (*stored)->run.saved && (*stored)->run.host_id == options_.host_id;
  if (*stored && !is_kept_here) return CheckNotHeld(guest_id);
  if (Status added = AddAllocated(guest_id, attempt.facts); !added) return RefusalOf(added.error());
  Rating rating = Rate(guest, attempt.facts.resources);
  if (!rating.refusals.empty()) return std::move(rating.refusals.front());
  records::Run& run = attempt.run;
  run.host_id = options_.host_id;
  if (options_.claim) run.incarnation = options_.claim->incarnation();
  run.since = std::chrono::system_clock::now();
  run.starting = true;
  run.restoring = attempt.IsSaved();
  (void)vgConfStateGet(guest_id, run.state_before);
  run.vcpus = json::UInt64(json::Member(guest.records.guest, keys::vcpu_num));
  run.memory_mib = json::UInt64(json::Member(guest.records.guest, keys::vram_size));
  run.pinned_cpus = std::move(rating.pinned_cpus);
  // Saved memory comes back with the processors of its last run.
  run.kept_off.reset();
  if (!run.restoring) {
    const std::vector<unsigned>& others = attempt.facts.resources.pinned_cpus;
    run.kept_off = std::set<unsigned>(others.begin(), others.end());
  }
  if (const Status reserved = ReserveVirtualFunctions(attempt); !reserved) return RefusalOf(reserved.error());
  store::Transaction transaction;
  transaction.compares = {{records::RunKey(guest_id), *stored ? (*stored)->revision : 0}};
  CompareFree(transaction, guest_id, {GuestLock::kRun});
  transaction.compares.push_back({records::FenceKey(options_.host_id, guest_id), 0});
  AddClaimCompare(transaction);
  transaction.operations = {{records::RunKey(guest_id), records::SerializeRun(run)}};
  const auto committed = options_.store->Commit(transaction);
  // The guests that run are moved off the processors that are dedicated to this one now.
  if (committed && !run.pinned_cpus.empty()) WakeMaintenance();
  if (committed) return {};
  if (committed.error().code() != ErrorCode::kConflict) return RefusalOf(committed.error());
  if (const auto allowed = CheckClaimHeld(); !allowed.ok()) return allowed;
  if (const auto allowed = CheckNotFenced(guest_id); !allowed.ok()) return allowed;
  if (const auto allowed = CheckNoUnfinishedJob(*options_.store, guest_id); !allowed.ok()) return allowed;
  if (const auto allowed = CheckNotHeld(guest_id); !allowed.ok()) return allowed;
  return Refusal{host_error::kBusy, "Another host has just released the guest. Try again"};
}

// According to the current store.
Result<void, Refusal> LibvirtGuestControl::CheckNotHeld(const std::string& guest_id) const {
  const auto snapshot = options_.store->Read();
  if (!snapshot) return RefusalOf(snapshot.error());
  return CheckNotHeld(**snapshot, guest_id);
}

Result<void, Refusal> LibvirtGuestControl::CheckNotHeld(const store::Snapshot& snapshot,
                                                        const std::string& guest_id) const {
  const auto run = records::ReadRun(snapshot, guest_id);
  if (!run) return RefusalOf(run.error());
  if (*run) {
    const std::string& host_id = (*run)->run.host_id;
    return Refusal{host_error::kAlreadyRunning,
                   (*run)->run.saved ? fmt::format("The guest's saved memory is held by the host '{}'", host_id)
                                     : fmt::format("The guest may be running on the host '{}'", host_id)};
  }
  auto job = FindJob(snapshot, guest_id);
  if (!job) return RefusalFor(job.error());
  return OkUnless(*std::move(job));
}

Result<void, Refusal> LibvirtGuestControl::StartNetworks(const records::Guest& guest) const {
  std::set<std::string> needed;
  for (const auto& [id, nic] : guest.records.nics) {
    const std::string name = json::String(json::Member(nic, "network_name"));
    if (!name.empty()) needed.insert(name);
  }
  if (needed.empty()) return {};
  const auto networks = hypervisor_->KnownNetworks();
  // Without a list, the start itself reports what it lacks.
  if (!networks) return {};
  for (const hypervisor::KnownNetwork& network : *networks) {
    if (network.is_active || !needed.contains(network.name)) continue;
    if (const auto started = hypervisor_->StartNetwork(network.name); !started) {
      return Refusal{host_error::kNoNetwork, started.error().ToString()};
    }
    ::syslog(LOG_NOTICE, "Started libvirt's network '%s', which the guest %s needs.",
             SanitizeForLog(network.name, kMaxLoggedName).c_str(), guest.records.id.c_str());
  }
  return {};
}

Result<void, Refusal> LibvirtGuestControl::StartReserved(StartAttempt& attempt, const Starts::Start& start) {
  // If this fails, the reconciliation that follows releases the reservation. Saved memory keeps the definition that it
  // was saved with.
  const domain_xml::CpuShares shares = hypervisor_->CpuSharesSupport();
  if (!attempt.IsSaved()) {
    ReportLayout(attempt.guest);
    if (const auto allowed = DefineGuest(attempt.guest, attempt.run, OwnershipTag::kOurs); !allowed.ok())
      return allowed;
  }
  BeforeStep("poweron: defined");
  const std::string& guest_id = attempt.guest.records.id;
  auto files = CheckFiles(guest_id, XmlOfStart(guest_id, attempt.IsSaved()));
  if (!files.ok() && attempt.IsSaved()) {
    return Refusal{files.error().code, fmt::format("{}. The guest's saved memory was kept", files.error().reason)};
  }
  if (!files.ok()) return files.error();
  BeforeStep("poweron: files checked");
  if (const auto networks = StartNetworks(attempt.guest); !networks.ok()) return networks;
  // The last checks before two domains could write to the same disks.
  const auto enter = [&]() -> Result<void, Refusal> {
    if (!start.TryEnterHypervisor())
      return Refusal{host_error::kBusy, "The guest was powered off while it was being started"};
    BeforeStep("poweron: asked");
    return CheckClaimHeld();
  };
  if (const auto allowed = enter(); !allowed.ok()) return allowed;
  // Ending a restored guest would lose its memory, so its files are compared before it runs.
  const bool is_restored = attempt.IsSaved() && *files;
  auto started = is_restored ? hypervisor_->Restore(guest_id) : hypervisor_->Start(guest_id);
  // Only what libvirt has refused, as a definition that it cannot run, is asked again.
  const bool lacks_cpu_group = !started && started.error().kind() == FailureKind::kInvalid && !attempt.IsSaved() &&
                               shares == domain_xml::CpuShares::kAllowed &&
                               hypervisor_->CpuSharesSupport() == domain_xml::CpuShares::kNoController;
  if (lacks_cpu_group) {
    ::syslog(LOG_WARNING,
             "Guests run without CPU weights until libvirt has the control group 'cpu' (cgroup_controllers in "
             "/etc/libvirt/qemu.conf): %s",
             started.error().ToString().c_str());
    if (const auto again = DefineGuest(attempt.guest, attempt.run, OwnershipTag::kOurs); !again.ok()) return again;
    BeforeStep("poweron: defined without weight");
    if (const auto allowed = enter(); !allowed.ok()) return allowed;
    started = hypervisor_->Start(guest_id);
  }
  BeforeStep("poweron: started");
  if (!started) return RefusalOf(started.error());
  if (is_restored) {
    if (const auto resumed = ResumeRestored(guest_id, **files); !resumed.ok()) return resumed;
  } else if (*files) {
    if (const auto difference = CompareFiles(guest_id, **files)) return EndForFiles(guest_id, *difference);
  }
  end_reasons_.Cancel(guest_id);
  end_reasons_.RecordSeenRunning(guest_id);
  ReportWeight(attempt.guest);
  ReportVirtualFunctions(attempt);
  return {};
}

}  // namespace vexa::guests
