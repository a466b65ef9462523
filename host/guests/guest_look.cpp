// Reconciles guests: stores what the hypervisor reports, and cleans up what an ended run has left.
#include <syslog.h>

#include <algorithm>
#include <set>
#include <utility>

#include "host/guests/guest_control_impl.h"
#include "host/guests/jobs/guest_locks.h"
#include "host/records/host_claim_record.h"
#include "host/records/reading.h"
#include "host/records/unstored_states.h"
#include "json/readers.h"
#include "webapi/platform/ccc.h"
#include "webapi/platform/ccc_state.h"

namespace vexa::guests {
namespace {

namespace keys = VexaCCC::DB::_k;
namespace states = VexaCCC::State::Guest;
using hypervisor::GuestState;
using hypervisor::Problem;

// Whether the hypervisor has a guest that is in this state.
bool IsLive(const std::string& state) { return VexaCCC::Utils::IsGuestStateOnline(state) || state == states::freeze; }

// Whether a failed start can end in this state.
bool IsOff(const std::string& state) { return state == states::shutdown || state == states::crashed; }

void Complain(const std::string& guest_id, const char* what, const std::string& why) {
  ::syslog(LOG_ERR, "The guest %s %s: %s", guest_id.c_str(), what, why.c_str());
}

std::string StoredState(const std::string& guest_id) {
  std::string state;
  // Not vgConfStateGet, which also returns states that could not be stored.
  VexaCCC::DB::Dashboard guest(VexaCCC::DB::DashCate::Guest, guest_id);
  return guest.Get(state, keys::state) == 0 ? state : std::string();
}

}  // namespace

void LibvirtGuestControl::LookAndRelease(Claims::Claim claim, const std::string& guest_id) {
  do {
    Look(guest_id);
  } while (!claim.ReleaseUnlessAsked());
}

void LibvirtGuestControl::LookWhenFree(const std::string& guest_id) {
  if (auto claim = claims_.TakeToLook(guest_id)) LookAndRelease(*std::move(claim), guest_id);
}

void LibvirtGuestControl::Look(const std::string& guest_id) {
  // During a stop everything is left as it is: the next start finds what runs.
  if (stopping_) return;
  // What is stored now counts, not what the request has read before.
  cluster::RequestScope::ReleaseSnapshot();
  Status looked = [&]() -> Status {
    if (Status settled = SettleFencedGuest(guest_id); !settled) return settled;
    if (options_.claim) {
      if (Status held = options_.claim->Check(); !held) return held;
    }
    const auto stored = ReadRun(*options_.store, guest_id);
    if (!stored) return stored.error();
    if (*stored && ForgetsGuests()) {
      if (Status restored = Restore(guest_id, **stored); !restored) {
        Complain(guest_id, "ran here and cannot be started again", restored.error().ToString());
      }
    }
    // The sequence first, so that the later of two overlapping looks counts.
    const cluster::Sequence sequence = sequencer_.Next();
    const auto state = hypervisor_->StateOf(guest_id);
    const bool is_gone = !state && state.failure().problem() == Problem::kNoSuchGuest;
    if (!state && !is_gone) return state.failure().error();
    if (state && IsActive(*state)) {
      const bool is_asked = shut_downs_->IsUnderWay(guest_id);
      const Result<bool> is_ours = NoteRunning(guest_id, *stored);
      if (!is_ours) return is_ours.error();
      if (!*is_ours) return {};
      ends_by_.NoteRun(guest_id);
      // A start that was refused because the guest ran, or before that was known, is not the reason for its eventual
      // end.
      if (const auto expected = ends_by_.Expected(guest_id);
          expected && expected->cause >= cluster::ShutdownCause::kNoResources) {
        ends_by_.Cancel(guest_id);
      }
      const char* const word = *state == GuestState::kPaused                     ? states::freeze
                               : is_asked || *state == GuestState::kShuttingDown ? states::shutting_down
                                                                                 : states::running;
      return Observe(guest_id, word, sequence);
    }
    shut_downs_->End(guest_id);
    if (state && *state == GuestState::kSaved) {
      const Result<bool> is_ours = NoteSaved(guest_id, *stored);
      if (!is_ours) return is_ours.error();
      if (!*is_ours) return {};
      return Observe(guest_id, states::saved, sequence);
    }
    const bool has_crashed = state && *state == GuestState::kCrashed;
    const auto ended = has_crashed ? EndReasons::Ended::kByCrash : EndReasons::Ended::kQuietly;
    if (const Status observed = ObserveEnd(guest_id, *stored, ended, sequence); !observed) return observed;
    const bool is_ours = *stored && (*stored)->run.host_id == options_.host_id;
    if (!is_ours) return {};
    return NoteOff(guest_id, *stored, !is_gone);
  }();
  if (looked) looked = NoteNics(guest_id);
  const std::lock_guard lock(maintenance_mutex_);
  if (looked) {
    unsettled_.erase(guest_id);
  } else if (unsettled_.insert(guest_id).second) {
    Complain(guest_id, "could not be reconciled. This is retried", looked.error().ToString());
  }
}

// Restarts a guest that was running when the hypervisor forgot it. A guest that was stopped is still known to the
// hypervisor, or has the state of one that is off.
Status LibvirtGuestControl::Restore(const std::string& guest_id, const StoredRun& stored) {
  if (stored.run.host_id != options_.host_id || stored.run.starting || stored.run.saved) return {};
  const auto state = hypervisor_->StateOf(guest_id);
  const bool is_forgotten = !state && state.failure().problem() == Problem::kNoSuchGuest;
  if (!is_forgotten || !IsLive(StoredState(guest_id))) return {};
  const cluster::CallScope scope;
  const Result<Guest> guest = ReadGuest(guest_id);
  if (!guest) return guest.error();
  cluster::RequestScope::ReleaseSnapshot();
  const Result<std::string> xml = DomainXml(*guest, stored.run.pinned_cpus, Mark::kOurs);
  if (!xml) return xml.error();
  if (const auto defined = hypervisor_->Define(*xml); !defined) return defined.failure().error();
  return hypervisor_->Start(guest_id);
}

Result<bool> LibvirtGuestControl::NoteRunning(const std::string& guest_id, const std::optional<StoredRun>& stored) {
  Run run;
  if (stored) {
    run = stored->run;
    if (run.host_id != options_.host_id) {
      return Error(ErrorCode::kConflict, "It runs here, and by its record on the host '" + run.host_id + "'");
    }
    const bool is_current = !options_.claim || run.incarnation >= options_.claim->booted();
    if (!run.starting && !run.saved && is_current) return true;
  } else {
    Result<std::optional<Run>> adopted = RunToAdopt(guest_id);
    if (!adopted) return adopted.error();
    if (!*adopted) return false;
    run = std::move(**adopted);
  }
  if (!stored || run.starting || run.saved) run.since = std::chrono::system_clock::now();
  if (options_.claim) run.incarnation = options_.claim->incarnation();
  run.starting = false;
  run.saved = false;
  const Status put = PutRun(guest_id, stored, run);
  Step("look: running noted");
  if (!put) return put.error();
  const auto definition = hypervisor_->DefinitionOf(guest_id);
  if (definition) {
    if (const Status recorded = RecordNvram(guest_id, *definition); !recorded) return recorded.error();
  }
  return true;
}

Result<bool> LibvirtGuestControl::NoteSaved(const std::string& guest_id, const std::optional<StoredRun>& stored) {
  Run run;
  if (stored) {
    run = stored->run;
    if (run.host_id != options_.host_id) {
      return Error(ErrorCode::kConflict,
                   "Its saved memory is here, and by its record the host '" + run.host_id + "' has it");
    }
    if (run.saved) return true;
  } else {
    Result<std::optional<Run>> adopted = RunToAdopt(guest_id);
    if (!adopted) return adopted.error();
    if (!*adopted) return false;
    run = std::move(**adopted);
  }
  run.starting = false;
  run.saved = true;
  run.pinned_cpus.clear();
  const Status put = PutRun(guest_id, stored, run);
  Step("look: saved noted");
  if (!put) return put.error();
  return true;
}

Result<std::optional<Run>> LibvirtGuestControl::RunToAdopt(const std::string& guest_id) {
  const cluster::CallScope scope;
  const auto record = cluster::ReadObject(VexaCCC::DB::DashCate::Guest.name(), guest_id);
  if (!record && record.error().code() == ErrorCode::kNotFound) return std::optional<Run>();
  if (!record) return record.error();
  const Json::Value& host_id = json::Member(**record, keys::host_id);
  if (!host_id.isString() || json::String(host_id) != options_.host_id) return std::optional<Run>();
  Run run;
  run.host_id = options_.host_id;
  run.since = std::chrono::system_clock::now();
  run.vcpus = json::UInt64(json::Member(**record, keys::vcpu_num));
  run.memory_mib = json::UInt64(json::Member(**record, keys::vram_size));
  return std::optional(std::move(run));
}

Status LibvirtGuestControl::PutRun(const std::string& guest_id, const std::optional<StoredRun>& stored,
                                   const Run& run) {
  store::Transaction transaction;
  transaction.compares = {{RunKey(guest_id), stored ? stored->revision : 0}};
  if (!stored) CompareFree(transaction, guest_id, {GuestLock::kRun});
  AddGuard(transaction);
  transaction.operations = {{RunKey(guest_id), RunText(run)}};
  cluster::RequestScope::ReleaseSnapshot();
  const auto committed = options_.store->Commit(transaction);
  if (!committed) return committed.error();
  return {};
}

Status LibvirtGuestControl::NoteOff(const std::string& guest_id, const std::optional<StoredRun>& stored,
                                    bool is_defined) {
  if (is_defined) {
    if (const Status down = TakeDown(guest_id); !down) return down;
  }
  store::Transaction transaction;
  transaction.compares = {{RunKey(guest_id), stored->revision}};
  AddGuard(transaction);
  transaction.operations = {{RunKey(guest_id), std::nullopt}};
  cluster::RequestScope::ReleaseSnapshot();
  const auto committed = options_.store->Commit(transaction);
  Step("look: off noted");
  if (!committed) return committed.error();
  return {};
}

// A foreign definition, or one with state that would be lost, stays.
Status LibvirtGuestControl::TakeDown(const std::string& guest_id) {
  const auto definition = hypervisor_->DefinitionOf(guest_id);
  if (!definition && definition.failure().problem() == Problem::kNoSuchGuest) return {};
  if (!definition) return definition.failure().error();
  if (const Status recorded = RecordNvram(guest_id, *definition); !recorded) return recorded;
  if (definition->owner != hypervisor::Owner::kHost) return {};
  const auto undefined = hypervisor_->Undefine(guest_id, hypervisor::UndefineScope::kDefinition);
  Step("look: undefined");
  if (undefined) return {};
  const Problem problem = undefined.failure().problem();
  if (problem == Problem::kNoSuchGuest || problem == Problem::kHasState) return {};
  return undefined.failure().error();
}

// Without a run, only an impossible state is corrected: a crash is shown until the next start.
Status LibvirtGuestControl::ObserveEnd(const std::string& guest_id, const std::optional<StoredRun>& stored,
                                       EndReasons::Ended ended, cluster::Sequence sequence) {
  const bool is_ours = stored && stored->run.host_id == options_.host_id;
  const std::string before = StoredState(guest_id);
  const bool was_off = !IsLive(before) && before != states::saved;
  const bool is_expected = ends_by_.Expected(guest_id).has_value();
  if (!is_ours && was_off && !is_expected) return {};
  // The end is already stored, but the steps after it were not finished.
  if (IsOff(before) && !is_expected && !ends_by_.HasRun(guest_id)) return {};
  const bool never_ran = is_ours && stored->run.starting && !ends_by_.HasRun(guest_id);
  std::string state = ended == EndReasons::Ended::kByCrash ? states::crashed : states::shutdown;
  // A failed start leaves the guest as it was.
  if (never_ran) state = IsOff(stored->run.state_before) ? stored->run.state_before : states::shutdown;
  if (was_off && (never_ran || !is_ours) && !before.empty()) state = before;
  std::optional<cluster::ShutdownReason> reason = ends_by_.Of(guest_id, ended);
  // There is nothing new to know about a guest that did not run.
  if (never_ran && !is_expected) reason.reset();
  if (Status observed = Observe(guest_id, state, sequence, reason); !observed) return observed;
  ends_by_.Forget(guest_id);
  return {};
}

Status LibvirtGuestControl::Observe(const std::string& guest_id, const std::string& state, cluster::Sequence sequence,
                                    const std::optional<cluster::ShutdownReason>& shutdown) {
  if (StoredState(guest_id) == state) {
    // Observations from while the database was lost are outdated.
    cluster::ForgetUnstoredState(guest_id);
    if (!shutdown) return {};
    const auto known = cluster::ReadShutdown(guest_id);
    if (known && *known == shutdown) return {};
  }
  cluster::RequestScope::ReleaseSnapshot();
  cluster::Observation observation{state, sequence, options_.host_id, std::chrono::system_clock::now(), shutdown};
  if (options_.claim) observation.guard = options_.claim->Guard();
  const auto observed = cluster::Observe(*options_.store, guest_id, observation);
  Step("look: state stored");
  if (observed) return {};
  // Its record no longer exists, and so neither does its state.
  if (observed.error().code() == ErrorCode::kNotFound) return {};
  return observed.error();
}

void LibvirtGuestControl::Reconcile() {
  std::set<std::string> ids;
  const auto runs = RunsOf(*options_.store, options_.host_id);
  if (!runs) {
    ::syslog(LOG_ERR, "What runs here by the records cannot be read: %s", runs.error().ToString().c_str());
  } else {
    for (const auto& [id, run] : *runs) ids.insert(id);
  }
  const auto known = hypervisor_->List();
  if (!known) {
    ::syslog(LOG_ERR, "Cannot list the hypervisor's guests: %s", known.failure().ToString().c_str());
  } else {
    for (const hypervisor::KnownGuest& guest : *known) ids.insert(guest.id);
  }
  const auto fenced = cluster::FencedGuests(*options_.store, options_.host_id);
  if (fenced) ids.insert(fenced->begin(), fenced->end());
  for (const std::string& id : ids) LookWhenFree(id);
}

}  // namespace vexa::guests
