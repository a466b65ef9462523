// Starting the guests of this host.
#include <algorithm>
#include <utility>

#include "host/guests/guest_control_impl.h"
#include "host/guests/jobs/guest_locks.h"
#include "host/records/host_claim_record.h"
#include "host/records/keys.h"
#include "host/records/object_edit.h"
#include "host/records/reading.h"
#include "json/readers.h"
#include "webapi/platform/ccc.h"
#include "webapi/platform/ccc_state.h"

namespace vexa::guests {
namespace {

using hypervisor::Owner;
using hypervisor::Problem;

// Not set: the start did not fail because of the guest, for instance because it runs already or is busy.
std::optional<cluster::ShutdownCause> CauseOfFailedStart(int code) {
  using enum cluster::ShutdownCause;
  switch (code) {
    case kNoVcpu:
    case kNoMemory:
    case kNoCpuThreads:
      return kNoResources;
    case kNoNetwork:
      return kBootNoNetwork;
    case kUnavailable:
      return kBootNoStorage;
    case kFailed:
    case kIncompatibleCpu:
      return kBootRefused;
    case kRunsAlready:
    case kElsewhere:
    case kBusy:
      return std::nullopt;
    default:
      return kBootFailed;
  }
}

Json::Value WithoutPending(Json::Value guest) {
  guest.removeMember(kPending);
  return guest;
}

}  // namespace

Refused LibvirtGuestControl::PowerOn(const std::string& guest_id, const Requester& requester) {
  return Perform(guest_id, "poweron", requester, [&] {
    Refused refused = StartGuest(guest_id);
    if (!refused) return refused;
    // The look that follows stores why the guest is off.
    const auto cause = CauseOfFailedStart(refused->code);
    // If it was powered off meanwhile, that is the reason, whatever error the start returns.
    if (cause && !ends_by_.Expected(guest_id)) ends_by_.Expect(guest_id, {*cause, false});
    return refused;
  });
}

Refused LibvirtGuestControl::StartGuest(const std::string& guest_id) {
  const Starts::Start start(starts_, guest_id);
  Starting starting;
  if (Refused refused = Prepare(guest_id, starting)) return refused;
  ends_by_.Forget(guest_id);
  if (Refused refused = Reserve(starting)) return refused;
  Step("poweron: reserved");
  if (!starting.IsSaved()) {
    if (const Status cleared = ClearPending(guest_id); !cleared) return RefusalOf(cleared.error());
  }
  // From now on the guest cannot be given to another host; changes made before count.
  cluster::RequestScope::ReleaseSnapshot();
  Result<Guest> current = ReadGuest(guest_id);
  if (!current) return RefusalOf(current.error());
  cluster::RequestScope::ReleaseSnapshot();
  if (WithoutPending(current->records.guest) != WithoutPending(starting.guest.records.guest)) {
    return Refusal{kBusy, "The guest was changed in this moment; try again"};
  }
  starting.guest = std::move(*current);
  // The state is for observers: a failure to store it does not stop the start.
  (void)Observe(guest_id, VexaCCC::State::Guest::booting, sequencer_.Next());
  return StartReserved(starting, start);
}

Refused LibvirtGuestControl::Prepare(const std::string& guest_id, Starting& starting) {
  const auto read = [&]() -> Refused {
    Result<Guest> guest = ReadGuest(guest_id);
    cluster::RequestScope::ReleaseSnapshot();
    if (!guest) return RefusalOf(guest.error());
    starting.guest = std::move(*guest);
    return {};
  };
  if (Refused unreadable = read()) return unreadable;
  if (starting.guest.host_id != options_.host_id) {
    return Refusal{kElsewhere, "The guest belongs to the host '" + starting.guest.host_id + "'"};
  }
  const auto state = hypervisor_->StateOf(guest_id);
  if (!state && state.failure().problem() != Problem::kNoSuchGuest) return RefusalOf(state.failure());
  if (state && IsActive(*state)) return Refusal{kRunsAlready, "The guest runs"};
  // The remains of an earlier run are cleaned up first and stored in the record.
  Look(guest_id);
  if (Refused fenced = RefuseFenced(guest_id)) return fenced;
  if (Refused unreadable = read()) return unreadable;
  auto definition = hypervisor_->DefinitionOf(guest_id);
  if (!definition && definition.failure().problem() != Problem::kNoSuchGuest) return RefusalOf(definition.failure());
  if (definition) starting.definition = std::move(*definition);
  auto imported = ImportedDomain(guest_id);
  if (!imported) return RefusalOf(imported.error());
  starting.imported = std::move(*imported);
  if (Refused foreign = RefuseForeign(starting)) return foreign;
  if (starting.definition && starting.definition->owner == Owner::kUser && !starting.IsSaved()) {
    if (const Status kept = KeepOriginal(guest_id); !kept) return RefusalOf(kept.error());
  }
  if (Refused unmounted = RefuseUnmounted(starting.guest)) return unmounted;
  if (!starting.IsSaved()) {
    if (Refused missing = RefuseMissingNvram(starting.guest)) return missing;
  }
  starting.facts = GatherFacts(starting.guest);
  return {};
}

// A definition that was made without this system and not handed over.
Refused LibvirtGuestControl::RefuseForeign(const Starting& starting) const {
  if (!starting.definition || starting.definition->owner != Owner::kUser || starting.imported) return {};
  return Refusal{kFailed,
                 "libvirt has a definition of the guest that VEXA did not make. It was left unchanged. Import the "
                 "guest from libvirt ('vexa import --all URI --replace'), or undefine it with 'virsh undefine "
                 "--keep-nvram'"};
}

// Files created in place of those on storage that is not mounted do not belong to the guest.
Refused LibvirtGuestControl::RefuseUnmounted(const Guest& guest) const {
  if (guest.repository_host_id != options_.host_id) return {};
  std::vector<std::string> paths;
  for (const auto& [id, disk] : guest.records.disks) {
    const Json::Value& path = json::Member(disk, "path");
    if (path.isString()) paths.push_back(json::String(path));
  }
  const Json::Value& nvram = json::Member(guest.records.guest, kNvramMember);
  if (nvram.isString()) paths.push_back(json::String(nvram));
  if (Refused unmounted = storage_->Refuse(guest.repository_id, paths, StorageUse::kExisting)) return unmounted;
  return paths.empty() ? Refused() : storage_->RefuseStart(guest.repository_id);
}

Refused LibvirtGuestControl::Reserve(Starting& starting) {
  const Guest& guest = starting.guest;
  const std::string& guest_id = guest.records.id;
  const std::lock_guard placing(placing_);
  const auto stored = ReadRun(*options_.store, guest_id);
  if (!stored) return RefusalOf(stored.error());
  // What this host has of a saved guest is its memory.
  const bool is_kept_here = *stored && (*stored)->run.saved && (*stored)->run.host_id == options_.host_id;
  if (*stored && !is_kept_here) return RefuseTaken(guest_id);
  if (Status added = AddTaken(guest_id, starting.facts); !added) return RefusalOf(added.error());
  Rating rating = Rate(guest, starting.facts.resources);
  if (!rating.refusals.empty()) return std::move(rating.refusals.front());
  Run& run = starting.run;
  run.host_id = options_.host_id;
  if (options_.claim) run.incarnation = options_.claim->incarnation();
  run.since = std::chrono::system_clock::now();
  run.starting = true;
  (void)vgConfStateGet(guest_id, run.state_before);
  run.vcpus = json::UInt64(json::Member(guest.records.guest, keys::vcpu_num));
  run.memory_mib = json::UInt64(json::Member(guest.records.guest, keys::vram_size));
  run.pinned_cpus = std::move(rating.pinned_cpus);
  store::Transaction transaction;
  transaction.compares = {{RunKey(guest_id), *stored ? (*stored)->revision : 0}};
  CompareFree(transaction, guest_id, {GuestLock::kRun});
  transaction.compares.push_back({cluster::FenceKey(options_.host_id, guest_id), 0});
  AddGuard(transaction);
  transaction.operations = {{RunKey(guest_id), RunText(run)}};
  cluster::RequestScope::ReleaseSnapshot();
  const auto committed = options_.store->Commit(transaction);
  if (committed) return {};
  if (committed.error().code() != ErrorCode::kConflict) return RefusalOf(committed.error());
  if (Refused stale = RefuseStale()) return stale;
  if (Refused fenced = RefuseFenced(guest_id)) return fenced;
  if (Refused job = JobUnderWay(*options_.store, guest_id)) return job;
  if (Refused taken = RefuseTaken(guest_id)) return taken;
  return Refusal{kBusy, "Another host has just let go of the guest; try again"};
}

// Whether the guest is held, or being deleted, according to the store now. Empty: it is not.
Refused LibvirtGuestControl::RefuseTaken(const std::string& guest_id) const {
  const auto run = ReadRun(*options_.store, guest_id);
  if (!run) return RefusalOf(run.error());
  if (*run) {
    const char* const what = (*run)->run.saved ? "' has the guest's saved memory" : "' has the guest";
    return Refusal{kRunsAlready, "The host '" + (*run)->run.host_id + what};
  }
  return JobUnderWay(*options_.store, guest_id);
}

// A change added after this may already take effect in this start, and is shown as pending all the same.
Status LibvirtGuestControl::ClearPending(const std::string& guest_id) {
  return cluster::CommitPlanned(*options_.store, [&]() -> Result<store::Transaction> {
    const auto snapshot = options_.store->Read();
    if (!snapshot) return snapshot.error();
    const std::string key = GuestObjectKey(guest_id);
    auto guest = cluster::LoadObject(**snapshot, key);
    if (!guest) return guest.error();
    store::Transaction transaction;
    if (!json::FindMember(guest->record, kPending)) return transaction;
    guest->record.removeMember(kPending);
    cluster::PutObject(transaction, key, *guest);
    return transaction;
  });
}

Refused LibvirtGuestControl::StartReserved(Starting& starting, const Starts::Start& start) {
  // The look that follows releases the reservation. Saved memory has the definition that it was saved with.
  if (!starting.IsSaved()) {
    if (Refused refused = DefineGuest(starting.guest, starting.run.pinned_cpus, Mark::kOurs)) return refused;
    if (!starting.definition) {
      if (Refused refused = RestoreAutostart(starting.guest.records.id)) return refused;
    }
  }
  Step("poweron: defined");
  if (!start.GoOn()) return Refusal{kBusy, "The guest was powered off while it was being started"};
  Step("poweron: asked");
  // The last check before two machines could write to the same disks.
  if (Refused stale = RefuseStale()) return stale;
  const auto started = hypervisor_->Start(starting.guest.records.id);
  Step("poweron: started");
  if (!started) return RefusalOf(started.failure());
  ends_by_.Cancel(starting.guest.records.id);
  ends_by_.NoteRun(starting.guest.records.id);
  return {};
}

}  // namespace vexa::guests
