// Reconciles guests: stores what the hypervisor reports, and cleans up after runs that have ended.
#include <fmt/format.h>
#include <syslog.h>

#include <algorithm>
#include <set>
#include <utility>

#include "host/base/mutex.h"
#include "host/guests/guest_control_impl.h"
#include "host/guests/jobs/guest_locks.h"
#include "host/records/host_claim_record.h"
#include "host/records/object_members.h"
#include "host/records/shutdown_reason.h"
#include "host/records/unstored_states.h"
#include "json/readers.h"
#include "webapi/platform/ccc.h"
#include "webapi/platform/ccc_state.h"

namespace vexa::guests {
namespace {

namespace keys = VexaCCC::DB::_k;
namespace states = VexaCCC::State::Guest;
using hypervisor::FailureKind;
using hypervisor::GuestState;

// Whether a guest in this state has a domain.
bool IsLive(const std::string& state) { return VexaCCC::Utils::IsGuestStateOnline(state) || state == states::freeze; }

// Whether a guest in this state is off.
bool IsOff(const std::string& state) { return state == states::shutdown || state == states::crashed; }

void LogFailure(const std::string& guest_id, const char* what, const std::string& why) {
  ::syslog(LOG_ERR, "The guest %s %s: %s", guest_id.c_str(), what, why.c_str());
}

// Not vgConfStateGet, which also returns states that could not be stored.
std::string StoredState(const records::Reader& reader, const std::string& guest_id) {
  return records::ReadStringOrEmpty(reader, VexaCCC::DB::DashCate::Guest, guest_id, keys::state);
}

// In the newest state; "" when it cannot be read.
std::string StoredState(const store::Store& store, const std::string& guest_id) {
  const auto reader = records::Reader::Open(store);
  return reader ? StoredState(*reader, guest_id) : std::string();
}

// Whether the store already has the state, and the reason for the shut-down if there is one.
bool IsStored(const store::Store& store, const std::string& guest_id, const std::string& state,
              const std::optional<records::ShutdownReason>& shutdown) {
  const auto reader = records::Reader::Open(store);
  if (!reader || StoredState(*reader, guest_id) != state) return false;
  // States that could not be stored while the database was lost are outdated now.
  records::ClearUnstoredState(guest_id);
  if (!shutdown) return true;
  const auto known = records::ReadShutdown(*reader, guest_id);
  return known && *known == shutdown;
}

}  // namespace

void LibvirtGuestControl::ReconcileAndRelease(GuestActivities::ActivityGuard guard, const std::string& guest_id) {
  do {
    Reconcile(guest_id);
  } while (!guard.ReleaseUnlessReconcileRequested());
}

void LibvirtGuestControl::ReconcileWhenFree(const std::string& guest_id) {
  if (auto guard = activities_.TryTakeForReconcile(guest_id)) ReconcileAndRelease(*std::move(guard), guest_id);
}

void LibvirtGuestControl::Reconcile(const std::string& guest_id) {
  // While this process stops, nothing is changed: its next start reconciles all guests.
  if (stopping_) return;
  Status reconciled = [&]() -> Status {
    if (Status stopped = StopFencedGuest(guest_id); !stopped) return stopped;
    if (options_.claim) {
      if (Status held = options_.claim->Check(); !held) return held;
    }
    const auto stored = records::ReadRun(*options_.store, guest_id);
    if (!stored) return stored.error();
    if (*stored && IsTestMode()) {
      if (Status restored = RestartForgotten(guest_id, **stored); !restored) {
        LogFailure(guest_id, "ran on this host and cannot be started again", restored.error().ToString());
      }
    }
    // Taken before the state is read, so that the later of two overlapping reconciliations wins.
    const records::Sequence sequence = sequencer_.Next();
    const auto state = hypervisor_->StateOf(guest_id);
    const bool is_gone = !state && state.error().kind() == FailureKind::kNoSuchGuest;
    if (!state && !is_gone) return state.error();
    if (state && *state == GuestState::kPaused && *stored && IsBeingRestored(guest_id, (*stored)->run)) {
      return Observe(guest_id, states::freeze, sequence);
    }
    if (state && IsActive(*state)) {
      const bool is_shutting_down = shut_downs_->IsInProgress(guest_id);
      const Result<bool> is_ours = RecordRunning(guest_id, *stored);
      if (!is_ours) return is_ours.error();
      if (!*is_ours) return {};
      end_reasons_.RecordSeenRunning(guest_id);
      // A start that failed, for instance because the guest was already running, is not the reason for its later end.
      if (const auto expected = end_reasons_.Expected(guest_id);
          expected && expected->cause >= records::ShutdownCause::kNoResources) {
        end_reasons_.Cancel(guest_id);
      }
      const char* const live_state = *state == GuestState::kPaused                             ? states::freeze
                                     : is_shutting_down || *state == GuestState::kShuttingDown ? states::shutting_down
                                                                                               : states::running;
      if (Status observed = Observe(guest_id, live_state, sequence); !observed) return observed;
      if (Status moved = KeepOffDedicatedCpus(guest_id); !moved) return moved;
      if (Status freed = FreeVirtualFunctions(guest_id); !freed) return freed;
      return DiscardOutdatedSaved(guest_id);
    }
    shut_downs_->End(guest_id);
    if (state && *state == GuestState::kSaved) {
      const Result<bool> is_ours = RecordSaved(guest_id, *stored);
      if (!is_ours) return is_ours.error();
      if (!*is_ours) return {};
      return Observe(guest_id, states::saved, sequence);
    }
    const bool has_crashed = state && *state == GuestState::kCrashed;
    const auto ended = has_crashed ? EndReasons::Ended::kByCrash : EndReasons::Ended::kNormally;
    if (const Status observed = ObserveEnd(guest_id, *stored, ended, sequence); !observed) return observed;
    // A guest that was imported is started by nobody else from now on.
    if (!*stored && !is_gone) ClearAutostartIfOurs(guest_id);
    const bool is_ours = *stored && (*stored)->run.host_id == options_.host_id;
    if (!is_ours) return {};
    return RecordOff(guest_id, *stored, !is_gone);
  }();
  if (reconciled) reconciled = RecordNicAttachments(guest_id);
  const MutexLock lock(maintenance_mutex_);
  if (reconciled) {
    unreconciled_.erase(guest_id);
  } else if (unreconciled_.insert(guest_id).second) {
    LogFailure(guest_id, "could not be reconciled. This is retried", reconciled.error().ToString());
  }
}

// A later start would restore it, and the guest's disks have changed since.
Status LibvirtGuestControl::DiscardOutdatedSaved(const std::string& guest_id) {
  const auto discarded = hypervisor_->DiscardOutdatedSaved(guest_id);
  if (!discarded) return discarded.error();
  if (*discarded) {
    ::syslog(
        LOG_WARNING,
        "The guest %s went on after its memory had been saved, because the save was interrupted. The file with the "
        "memory was removed",
        guest_id.c_str());
  }
  return {};
}

// Test mode only: restarts a guest that was running when the hypervisor forgot it, at the end of the process. A guest
// that was stopped is still known to the hypervisor, or its stored state is that of a guest that is off. Guests that
// ended with the machine start as their "autorun" says.
Status LibvirtGuestControl::RestartForgotten(const std::string& guest_id, const records::StoredRun& stored) {
  if (stored.run.host_id != options_.host_id || stored.run.starting || stored.run.saved) return {};
  const std::uint64_t incarnation = stored.run.incarnation;
  if (options_.claim && incarnation != 0 && incarnation < options_.claim->booted()) return {};
  const auto state = hypervisor_->StateOf(guest_id);
  const bool is_forgotten = !state && state.error().kind() == FailureKind::kNoSuchGuest;
  const std::string state_before = StoredState(*options_.store, guest_id);
  if (!is_forgotten || !IsLive(state_before)) return {};
  const Result<records::Guest> guest = ReadGuestNow(guest_id);
  if (!guest) return guest.error();
  const Result<std::string> xml = DomainXml(*guest, stored.run, OwnershipTag::kOurs);
  if (!xml) return xml.error();
  if (const auto defined = hypervisor_->Define(*xml); !defined) return defined.error();
  if (const auto started = hypervisor_->Start(guest_id); !started) return started.error();
  if (state_before != states::freeze) return {};
  return hypervisor_->Suspend(guest_id);
}

Result<std::optional<records::Run>> LibvirtGuestControl::OwnRun(const std::string& guest_id,
                                                                const std::optional<records::StoredRun>& stored,
                                                                std::string_view what_is_here) {
  if (!stored) return RunToAdopt(guest_id);
  if (stored->run.host_id == options_.host_id) return std::optional(stored->run);
  return Error(ErrorCode::kConflict,
               fmt::format("{} here, but its run record names the host '{}'", what_is_here, stored->run.host_id));
}

Result<bool> LibvirtGuestControl::RecordRunning(const std::string& guest_id,
                                                const std::optional<records::StoredRun>& stored) {
  Result<std::optional<records::Run>> own = OwnRun(guest_id, stored, "It runs");
  if (!own) return own.error();
  if (!*own) return false;
  records::Run& run = **own;
  const bool is_current = !options_.claim || run.incarnation >= options_.claim->booted();
  if (stored && !run.starting && !run.saved && is_current) return true;
  if (!stored || run.starting || run.saved) run.since = std::chrono::system_clock::now();
  if (options_.claim) run.incarnation = options_.claim->incarnation();
  run.starting = false;
  // It has the processors that it was saved with.
  if (run.saved) run.kept_off.reset();
  run.saved = false;
  const Status put = PutRun(guest_id, stored, run);
  BeforeStep("reconcile: running recorded");
  if (!put) return put.error();
  const auto definition = hypervisor_->DefinitionOf(guest_id);
  if (definition) {
    if (const Status recorded = RecordNvram(guest_id, *definition); !recorded) return recorded.error();
  }
  return true;
}

Result<bool> LibvirtGuestControl::RecordSaved(const std::string& guest_id,
                                              const std::optional<records::StoredRun>& stored) {
  Result<std::optional<records::Run>> own = OwnRun(guest_id, stored, "Its saved memory is");
  if (!own) return own.error();
  if (!*own) return false;
  records::Run& run = **own;
  if (stored && run.saved) return true;
  run.starting = false;
  run.saved = true;
  const bool frees_cpus = !run.pinned_cpus.empty();
  run.pinned_cpus.clear();
  const Status put = PutRun(guest_id, stored, run);
  BeforeStep("reconcile: saved recorded");
  if (!put) return put.error();
  if (frees_cpus) WakeMaintenance();
  return true;
}

Result<std::optional<records::Run>> LibvirtGuestControl::RunToAdopt(const std::string& guest_id) {
  const auto reader = records::Reader::Open(*options_.store);
  if (!reader) return reader.error();
  const auto record = reader->ReadObject(VexaCCC::DB::DashCate::Guest.name(), guest_id);
  if (!record && record.error().code() == ErrorCode::kNotFound) return std::optional<records::Run>();
  if (!record) return record.error();
  const Json::Value& host_id = json::Member(**record, keys::host_id);
  if (!host_id.isString() || json::String(host_id) != options_.host_id) return std::optional<records::Run>();
  records::Run run;
  run.host_id = options_.host_id;
  run.since = std::chrono::system_clock::now();
  run.vcpus = json::UInt64(json::Member(**record, keys::vcpu_num));
  run.memory_mib = json::UInt64(json::Member(**record, keys::vram_size));
  run.pinned_cpus = PinsToAdopt(guest_id, json::UInt64(json::Member(**record, keys::cpu_pin_num)));
  // The definition of a user says where his guest runs, as long as no processors are dedicated.
  if (!run.pinned_cpus.empty()) run.kept_off.reset();
  return std::optional(std::move(run));
}

Status LibvirtGuestControl::PutRun(const std::string& guest_id, const std::optional<records::StoredRun>& stored,
                                   const records::Run& run) {
  store::Transaction transaction;
  transaction.compares = {{records::RunKey(guest_id), stored ? stored->revision : 0}};
  if (!stored) CompareFree(transaction, guest_id, {GuestLock::kRun});
  AddClaimCompare(transaction);
  transaction.operations = {{records::RunKey(guest_id), records::SerializeRun(run)}};
  const auto committed = options_.store->Commit(transaction);
  if (!committed) return committed.error();
  return {};
}

Status LibvirtGuestControl::RecordOff(const std::string& guest_id, const std::optional<records::StoredRun>& stored,
                                      bool is_defined) {
  if (is_defined) {
    if (const Status cleaned = CleanUpRun(guest_id); !cleaned) return cleaned;
  }
  store::Transaction transaction;
  transaction.compares = {{records::RunKey(guest_id), stored->revision}};
  AddClaimCompare(transaction);
  transaction.operations = {{records::RunKey(guest_id), std::nullopt}};
  const auto committed = options_.store->Commit(transaction);
  BeforeStep("reconcile: off recorded");
  if (!committed) return committed.error();
  if (!stored->run.pinned_cpus.empty()) WakeMaintenance();
  return {};
}

// Keeps a definition that is not this system's, and one with state that would be lost.
Status LibvirtGuestControl::CleanUpRun(const std::string& guest_id) {
  const auto definition = hypervisor_->DefinitionOf(guest_id);
  if (!definition && definition.error().kind() == FailureKind::kNoSuchGuest) return {};
  if (!definition) return definition.error();
  if (const Status recorded = RecordNvram(guest_id, *definition); !recorded) return recorded;
  if (definition->owner != hypervisor::Owner::kHost) return {};
  const auto undefined = hypervisor_->Undefine(guest_id, hypervisor::UndefineScope::kDefinition);
  BeforeStep("reconcile: undefined");
  if (undefined) return {};
  const FailureKind kind = undefined.error().kind();
  if (kind == FailureKind::kNoSuchGuest || kind == FailureKind::kHasState) return {};
  return undefined.error();
}

// Without a run, only a state that cannot be true is corrected: "crashed" stays until the next start.
Status LibvirtGuestControl::ObserveEnd(const std::string& guest_id, const std::optional<records::StoredRun>& stored,
                                       EndReasons::Ended ended, records::Sequence sequence) {
  const bool is_ours = stored && stored->run.host_id == options_.host_id;
  const std::string before = StoredState(*options_.store, guest_id);
  const bool was_off = !IsLive(before) && before != states::saved;
  const bool is_expected = end_reasons_.Expected(guest_id).has_value();
  if (!is_ours && was_off && !is_expected) return {};
  // The end is already stored, but the steps after it were not finished.
  if (IsOff(before) && !is_expected && !end_reasons_.HasRun(guest_id)) return {};
  const bool never_ran = is_ours && stored->run.starting && !end_reasons_.HasRun(guest_id);
  std::string state = ended == EndReasons::Ended::kByCrash ? states::crashed : states::shutdown;
  // A failed start leaves the guest as it was.
  if (never_ran) state = IsOff(stored->run.state_before) ? stored->run.state_before : states::shutdown;
  if (was_off && (never_ran || !is_ours) && !before.empty()) state = before;
  std::optional<records::ShutdownReason> reason = end_reasons_.ReasonFor(guest_id, ended);
  // A guest that did not run keeps the reason for its earlier end.
  if (never_ran && !is_expected) reason.reset();
  if (Status observed = Observe(guest_id, state, sequence, reason); !observed) return observed;
  end_reasons_.Forget(guest_id);
  return {};
}

Status LibvirtGuestControl::Observe(const std::string& guest_id, const std::string& state, records::Sequence sequence,
                                    const std::optional<records::ShutdownReason>& shutdown) {
  if (IsStored(*options_.store, guest_id, state, shutdown)) return {};
  records::Observation observation{state, sequence, options_.host_id, std::chrono::system_clock::now(), shutdown};
  if (options_.claim) observation.guard = options_.claim->Guard();
  const auto observed = records::Observe(*options_.store, guest_id, observation);
  BeforeStep("reconcile: state stored");
  if (observed) return {};
  // A guest without a record has no state either.
  if (observed.error().code() == ErrorCode::kNotFound) return {};
  return observed.error();
}

void LibvirtGuestControl::ReconcileAll() {
  std::set<std::string> ids;
  const auto runs = records::RunsOf(*options_.store, options_.host_id);
  if (!runs) {
    ::syslog(LOG_ERR, "Cannot read which guests are recorded as running on this host: %s",
             runs.error().ToString().c_str());
  } else {
    for (const auto& [id, run] : *runs) ids.insert(id);
  }
  const auto known = hypervisor_->List();
  if (!known) {
    ::syslog(LOG_ERR, "Cannot list the hypervisor's guests: %s", known.error().ToString().c_str());
  } else {
    for (const hypervisor::KnownGuest& guest : *known) ids.insert(guest.id);
  }
  const auto fenced = records::FencedGuests(*options_.store, options_.host_id);
  if (fenced) ids.insert(fenced->begin(), fenced->end());
  for (const std::string& id : ids) {
    auto guard = activities_.TryTakeForReconcile(id);
    if (!guard) continue;
    ClearAutostartIfOurs(id);
    (void)FinishRestore(id);
    ReconcileAndRelease(*std::move(guard), id);
  }
}

}  // namespace vexa::guests
