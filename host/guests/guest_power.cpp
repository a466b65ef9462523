// Stops the guests of this host, and other operations that run one at a time per guest.
#include <syslog.h>

#include <algorithm>
#include <utility>

#include "host/guests/guest_control_impl.h"
#include "host/guests/jobs/guest_locks.h"
#include "host/records/keys.h"
#include "host/records/object_edit.h"
#include "host/records/reading.h"
#include "host/store/key.h"
#include "json/readers.h"
#include "webapi/platform/ccc.h"

namespace vexa::guests {
namespace {

using hypervisor::Problem;

int CodeFor(Problem problem) {
  switch (problem) {
    case Problem::kAlreadyRunning:
      return kRunsAlready;
    case Problem::kNotRunning:
    case Problem::kNoSuchGuest:
      return kNotRunning;
    case Problem::kNetworkMissing:
    case Problem::kBridgeMissing:
      return kNoNetwork;
    case Problem::kDiskMissing:
    case Problem::kDisconnected:
      return kUnavailable;
    case Problem::kNoMemory:
      return kNoMemory;
    case Problem::kBusy:
      return kBusy;
    case Problem::kCpuIncompatible:
      return kIncompatibleCpu;
    default:
      return kFailed;
  }
}

void LogDone(const std::string& guest_id, std::string_view action, const Refused& refused) {
  if (refused) {
    ::syslog(LOG_WARNING, "The guest %s was refused '%.*s' with code %d: %s", guest_id.c_str(),
             static_cast<int>(action.size()), action.data(), refused->code, refused->reason.c_str());
  } else {
    ::syslog(LOG_INFO, "The guest %s got '%.*s'.", guest_id.c_str(), static_cast<int>(action.size()), action.data());
  }
}

constexpr std::chrono::seconds kMaxWaitForLook{5};

}  // namespace

Refusal RefusalOf(const hypervisor::Failure& failure) { return {CodeFor(failure.problem()), failure.ToString()}; }

Refusal RefusalOf(const Error& error) {
  const bool is_unreadable = error.code() == ErrorCode::kNotFound || error.code() == ErrorCode::kCorrupt;
  return {is_unreadable ? kUnreadable : kFailed, error.ToString()};
}

Refused LibvirtGuestControl::Perform(const std::string& guest_id, std::string_view action, const Requester& requester,
                                     const std::function<Refused()>& act, std::chrono::milliseconds patience) {
  if (stopping_) return Refusal{kUnavailable, "This host is stopping"};
  // This is followed by waits for other hosts' records and the hypervisor.
  cluster::RequestScope::ReleaseSnapshot();
  auto taken = claims_.Take(guest_id, {std::string(action), requester, std::chrono::system_clock::now()}, patience);
  if (const auto* other = std::get_if<Activity>(&taken)) return Refusal{kBusy, Describe(*other)};
  if (stopping_) return Refusal{kUnavailable, "This host is stopping"};
  Refused refused = RefuseStale();
  if (!refused) refused = act();
  LogDone(guest_id, action, refused);
  LookAndRelease(std::get<Claims::Claim>(std::move(taken)), guest_id);
  return refused;
}

Refused LibvirtGuestControl::Ask(const std::string& guest_id, const std::function<Done()>& ask) {
  const Result<cluster::Record> record = cluster::ReadObject(VexaCCC::DB::DashCate::Guest.name(), guest_id);
  if (!record) return RefusalOf(record.error());
  cluster::RequestScope::ReleaseSnapshot();
  const Done done = ask();
  if (done) return {};
  return RefusalOf(done.failure());
}

Refused LibvirtGuestControl::ShutDown(const std::string& guest_id, const Requester& requester) {
  return Perform(guest_id, "shutdown", requester, [&] {
    return Ask(guest_id, [&]() -> Done {
      const auto state = hypervisor_->StateOf(guest_id);
      if (!state) return state.failure();
      Step("shutdown: asked");
      ends_by_.Expect(guest_id, {cluster::ShutdownCause::kShutDown, false});
      Done asked = hypervisor_->ShutDown(guest_id);
      if (asked) shut_downs_->Begin(guest_id);
      if (!asked) ends_by_.Cancel(guest_id);
      Step("shutdown: done");
      return asked;
    });
  });
}

// An operation in progress may hang together with the guest, and ends when its machine does: so this waits for nothing.
Refused LibvirtGuestControl::PowerOff(const std::string& guest_id, const Requester& requester) {
  if (stopping_) return Refusal{kUnavailable, "This host is stopping"};
  if (Refused stale = RefuseStale()) return stale;
  cluster::RequestScope::ReleaseSnapshot();
  auto taken = claims_.Take(guest_id, {"poweroff", requester, std::chrono::system_clock::now()});
  const Refused refused = Ask(guest_id, [&] {
    Step("poweroff: asked");
    shut_downs_->End(guest_id);
    ends_by_.Expect(guest_id, ReasonOfPowerOff(guest_id));
    Done done = EndRun(guest_id);
    if (!done) ends_by_.Cancel(guest_id);
    Step("poweroff: done");
    return done;
  });
  LogDone(guest_id, "poweroff", refused);
  if (auto* claim = std::get_if<Claims::Claim>(&taken)) {
    LookAndRelease(std::move(*claim), guest_id);
  } else {
    // The shown state is off when this returns, even if another holder has to look.
    LookWhenFree(guest_id);
    claims_.AwaitFree(guest_id, kMaxWaitForLook);
  }
  return refused;
}

cluster::ShutdownReason LibvirtGuestControl::ReasonOfPowerOff(const std::string& guest_id) {
  namespace states = VexaCCC::State::Repo;
  using enum cluster::ShutdownCause;
  const auto has_stopped = hypervisor_->HasStoppedForStorage(guest_id);
  if (!has_stopped || !*has_stopped) return {kPoweredOff, true};
  std::string repository_id;
  std::string state;
  (void)VexaCCC::DB::Dashboard(VexaCCC::DB::DashCate::Guest, guest_id).Get(repository_id, keys::repository_id);
  (void)VexaCCC::DB::Dashboard(VexaCCC::DB::DashCate::Repository, repository_id).Get(state, keys::state);
  cluster::RequestScope::ReleaseSnapshot();
  const std::pair<const char*, cluster::ShutdownCause> causes[] = {{states::full, kRepositoryFull},
                                                                   {states::unavailable, kStorageUnavailable},
                                                                   {states::crashed, kStorageCrashed},
                                                                   {states::degraded, kStorageReadOnly},
                                                                   {states::inaccessible, kStorageInaccessible}};
  for (const auto& [of_repository, cause] : causes) {
    if (state == of_repository) return {cause, true};
  }
  return {kPoweredOff, true};
}

LibvirtGuestControl::Done LibvirtGuestControl::EndRun(const std::string& guest_id) {
  const CalledOff called_off = starts_.CallOff(guest_id);
  Step("end: called off");
  const auto state = hypervisor_->StateOf(guest_id);
  Done done = hypervisor_->PowerOff(guest_id);
  // A guest that ended in between is in the requested state.
  const bool was_active = state && IsActive(*state);
  if (!done && was_active && done.failure().problem() == Problem::kNotRunning) done = Done();
  if (done || called_off != CalledOff::kTooLate) return done;
  // It may not have reached the guest's machine yet.
  if (!starts_.AwaitEnd(guest_id, options_.fence_wait)) {
    return hypervisor::Failure(Problem::kBusy, "The guest is being started, and that does not come to an end");
  }
  return hypervisor_->PowerOff(guest_id);
}

Refused LibvirtGuestControl::Reboot(const std::string& guest_id, const Requester& requester) {
  return Perform(guest_id, "reboot", requester, [&] {
    return Ask(guest_id, [&] {
      shut_downs_->End(guest_id);
      ends_by_.Cancel(guest_id);
      return hypervisor_->Reboot(guest_id);
    });
  });
}

Refused LibvirtGuestControl::Fence(const std::string& guest_id) {
  shut_downs_->End(guest_id);
  ends_by_.Expect(guest_id, {cluster::ShutdownCause::kFenced, true});
  const Done done = EndRun(guest_id);
  if (!done) ends_by_.Cancel(guest_id);
  LookWhenFree(guest_id);
  if (done) return {};
  const Problem problem = done.failure().problem();
  if (problem == Problem::kNotRunning || problem == Problem::kNoSuchGuest) return {};
  Refusal refusal = RefusalOf(done.failure());
  if (problem == Problem::kBusy) refusal.code = kUnavailable;
  return refusal;
}

Refused LibvirtGuestControl::RefuseActive(const std::string& guest_id) {
  const auto state = hypervisor_->StateOf(guest_id);
  if (state) {
    if (!IsActive(*state)) return {};
    return Refusal{kRunsAlready, "The guest's machine runs on this host: power it off first"};
  }
  const Problem problem = state.failure().problem();
  // libvirt has no machine with an impossible id.
  if (problem == Problem::kNoSuchGuest || problem == Problem::kInvalid) return {};
  return Refusal{kUnavailable, "It is unknown whether the guest runs: " + state.failure().ToString()};
}

Refused LibvirtGuestControl::Delete(const std::string& guest_id, const Requester& requester) {
  return Perform(guest_id, "delete", requester, [&] {
    // If the guest has only just gone off, the cleanup may not have been done yet.
    Look(guest_id);
    Refused refused = deletion_.Delete(guest_id, requester);
    if (!refused) RemoveNoted(guest_id);
    return refused;
  });
}

Refused LibvirtGuestControl::Edit(const std::string& guest_id, const Json::Value& edit, const Requester& requester) {
  return Perform(
      guest_id, "edit", requester, [&] { return edits_.Edit(guest_id, edit, requester); }, options_.edit_patience);
}

Refused LibvirtGuestControl::SetHost(const std::string& guest_id, const std::string& host_id) {
  cluster::RequestScope::ReleaseSnapshot();
  Refused taken = RefuseTaken(guest_id);
  if (!taken) taken = RefuseActive(guest_id);
  if (taken) return taken;
  const Status committed = cluster::CommitPlanned(*options_.store, [&]() -> Result<store::Transaction> {
    taken.reset();
    const auto snapshot = options_.store->Read();
    if (!snapshot) return snapshot.error();
    const auto host = cluster::LoadObject(**snapshot, cluster::ObjectKey(VexaCCC::DB::DashCate::Host.name(), host_id));
    if (!host) return host.error();
    if (host->revision == 0) return Error(ErrorCode::kNotFound, "There is no host '" + host_id + "'");
    auto guest = cluster::LoadObject(**snapshot, GuestObjectKey(guest_id));
    if (!guest) return guest.error();
    if (guest->revision == 0) return Error(ErrorCode::kNotFound, "There is no such guest");
    store::Transaction transaction;
    const Result<bool> is_held = IsHeld(**snapshot, guest_id);
    if (!is_held) return is_held.error();
    if (*is_held) {
      taken = RefuseTaken(guest_id);
      if (taken) return transaction;
    }
    CompareFree(transaction, guest_id);
    // The definition on the previous host, which would start with its machine, must not run beside the guest.
    const Json::Value& before = json::Member(guest->record, keys::host_id);
    const std::string host_before = before.isString() ? json::String(before) : std::string();
    const std::string note = UndefineKey(host_before, guest_id);
    if (!host_before.empty() && host_before != host_id && store::IsKey(note)) {
      transaction.operations.push_back({note, "true"});
    }
    guest->record[keys::host_id] = host_id;
    cluster::PutObject(transaction, GuestObjectKey(guest_id), *guest);
    return transaction;
  });
  if (taken) return taken;
  if (!committed) return RefusalOf(committed.error());
  return {};
}

bool LibvirtGuestControl::PressAgain(const std::string& guest_id) {
  if (stopping_) return false;
  const Done pressed = hypervisor_->ShutDown(guest_id);
  if (pressed) return true;
  const Problem problem = pressed.failure().problem();
  return problem != Problem::kNotRunning && problem != Problem::kNoSuchGuest;
}

}  // namespace vexa::guests
