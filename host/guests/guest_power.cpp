// Stops the guests of this host, and other operations that run one at a time per guest.
#include <fmt/format.h>
#include <syslog.h>

#include <algorithm>
#include <utility>

#include "host/base/uuid.h"
#include "host/domain_xml/domain_images.h"
#include "host/guests/autorun.h"
#include "host/guests/guest_control_impl.h"
#include "host/guests/jobs/guest_locks.h"
#include "host/records/keys.h"
#include "host/records/object_edit.h"
#include "host/records/object_members.h"
#include "host/records/request_scope.h"
#include "host/store/key.h"
#include "json/readers.h"
#include "webapi/platform/ccc.h"

namespace vexa::guests {
namespace {

using hypervisor::FailureKind;

int RefusalCodeOf(FailureKind kind) {
  switch (kind) {
    case FailureKind::kAlreadyRunning:
      return host_error::kAlreadyRunning;
    case FailureKind::kNotRunning:
    case FailureKind::kNoSuchGuest:
      return host_error::kNotRunning;
    case FailureKind::kNetworkMissing:
    case FailureKind::kBridgeMissing:
      return host_error::kNoNetwork;
    case FailureKind::kDiskMissing:
    case FailureKind::kDisconnected:
      return host_error::kUnavailable;
    case FailureKind::kNoMemory:
      return host_error::kNoMemory;
    case FailureKind::kBusy:
      return host_error::kBusy;
    case FailureKind::kCpuIncompatible:
      return host_error::kIncompatibleCpu;
    default:
      return host_error::kFailed;
  }
}

void LogResult(const std::string& guest_id, std::string_view action, const Result<void, Refusal>& done) {
  if (!done.ok()) {
    ::syslog(LOG_WARNING, "Refused '%.*s' on guest %s with code %d: %s", static_cast<int>(action.size()), action.data(),
             guest_id.c_str(), done.error().code, done.error().reason.c_str());
  } else {
    ::syslog(LOG_INFO, "Performed '%.*s' on guest %s.", static_cast<int>(action.size()), action.data(),
             guest_id.c_str());
  }
}

constexpr std::chrono::seconds kReconcileTimeout{5};

// The state of the guest's repository; "" when it is unknown.
std::string RepositoryStateOf(const store::Store& store, const std::string& guest_id) {
  using VexaCCC::DB::DashCate;
  const auto reader = records::Reader::Open(store);
  if (!reader) return {};
  const std::string id = records::ReadStringOrEmpty(*reader, DashCate::Guest, guest_id, keys::repository_id);
  return records::ReadStringOrEmpty(*reader, DashCate::Repository, id, keys::state);
}

}  // namespace

Refusal OnOtherHost(const std::string& host_id) {
  return {host_error::kOnOtherHost, fmt::format("The guest belongs to the host '{}'", host_id)};
}

Refusal RefusalOf(const hypervisor::Failure& failure) { return {RefusalCodeOf(failure.kind()), failure.ToString()}; }

Refusal RefusalOf(const Error& error) {
  const bool is_unreadable = error.code() == ErrorCode::kNotFound || error.code() == ErrorCode::kCorrupt;
  return {is_unreadable ? host_error::kNotFoundOrUnreadable : host_error::kFailed, error.ToString()};
}

Result<void, Refusal> LibvirtGuestControl::Perform(const std::string& guest_id, std::string_view action,
                                                   const Requester& requester,
                                                   const std::function<Result<void, Refusal>()>& act,
                                                   std::chrono::milliseconds timeout) {
  if (stopping_) return Refusal{host_error::kUnavailable, "This host is stopping"};
  // No snapshot is kept while this waits for other operations and the hypervisor.
  const records::RequestPause without_reader;
  auto guard_or_activity =
      activities_.Take(guest_id, {std::string(action), requester, std::chrono::system_clock::now()}, timeout);
  if (const auto* other = std::get_if<Activity>(&guard_or_activity))
    return Refusal{host_error::kBusy, Describe(*other)};
  if (stopping_) return Refusal{host_error::kUnavailable, "This host is stopping"};
  Result<void, Refusal> done = CheckClaimHeld();
  if (done.ok()) done = act();
  LogResult(guest_id, action, done);
  ReconcileAndRelease(std::get<GuestActivities::ActivityGuard>(std::move(guard_or_activity)), guest_id);
  return done;
}

// In the newest state.
Result<void, Refusal> LibvirtGuestControl::CheckRecord(const std::string& guest_id) const {
  const auto reader = records::Reader::Open(*options_.store);
  if (!reader) return RefusalOf(reader.error());
  const auto record = reader->ReadObject(VexaCCC::DB::DashCate::Guest.name(), guest_id);
  if (!record) return RefusalOf(record.error());
  return {};
}

Result<void, Refusal> LibvirtGuestControl::CallHypervisor(const std::string& guest_id,
                                                          const std::function<HypervisorStatus()>& call) {
  if (const auto allowed = CheckRecord(guest_id); !allowed.ok()) return allowed;
  const HypervisorStatus done = call();
  if (done) return {};
  return RefusalOf(done.error());
}

Result<void, Refusal> LibvirtGuestControl::ShutDown(const std::string& guest_id, const Requester& requester) {
  return Perform(guest_id, "shutdown", requester, [&] {
    return CallHypervisor(guest_id, [&]() -> HypervisorStatus {
      const auto state = hypervisor_->StateOf(guest_id);
      if (!state) return state.error();
      BeforeStep("shutdown: asked");
      end_reasons_.Expect(guest_id, {records::ShutdownCause::kShutDown, false});
      HypervisorStatus requested = hypervisor_->ShutDown(guest_id);
      if (requested) shut_downs_->Begin(guest_id);
      if (!requested) end_reasons_.Cancel(guest_id);
      BeforeStep("shutdown: done");
      return requested;
    });
  });
}

// Does not wait for an operation in progress, which may hang together with the guest and ends when its domain does.
Result<void, Refusal> LibvirtGuestControl::PowerOff(const std::string& guest_id, const Requester& requester) {
  if (stopping_) return Refusal{host_error::kUnavailable, "This host is stopping"};
  const records::RequestPause without_reader;
  if (const auto allowed = CheckClaimHeld(); !allowed.ok()) return allowed;
  auto guard_or_activity = activities_.Take(guest_id, {"poweroff", requester, std::chrono::system_clock::now()});
  const auto ended = CallHypervisor(guest_id, [&] {
    BeforeStep("poweroff: asked");
    shut_downs_->End(guest_id);
    end_reasons_.Expect(guest_id, PowerOffReason(guest_id));
    HypervisorStatus done = StopDomain(guest_id);
    if (!done) end_reasons_.Cancel(guest_id);
    BeforeStep("poweroff: done");
    return done;
  });
  LogResult(guest_id, "poweroff", ended);
  // A start with the machine that this has ended, or that waits for its next attempt, is not repeated.
  (void)RemoveAutorun(*options_.store, options_.host_id, guest_id);
  if (auto* guard = std::get_if<GuestActivities::ActivityGuard>(&guard_or_activity)) {
    ReconcileAndRelease(std::move(*guard), guest_id);
  } else {
    // Readers see the guest off when this returns, even if the holder has to reconcile it.
    ReconcileWhenFree(guest_id);
    activities_.AwaitFree(guest_id, kReconcileTimeout);
  }
  return ended;
}

records::ShutdownReason LibvirtGuestControl::PowerOffReason(const std::string& guest_id) {
  namespace states = VexaCCC::State::Repo;
  using enum records::ShutdownCause;
  const auto is_paused = hypervisor_->IsPausedOnIoError(guest_id);
  if (!is_paused || !*is_paused) return {kPoweredOff, true};
  const std::string state = RepositoryStateOf(*options_.store, guest_id);
  const std::pair<const char*, records::ShutdownCause> causes[] = {{states::full, kRepositoryFull},
                                                                   {states::unavailable, kStorageUnavailable},
                                                                   {states::crashed, kStorageCrashed},
                                                                   {states::degraded, kStorageReadOnly},
                                                                   {states::inaccessible, kStorageInaccessible}};
  for (const auto& [of_repository, cause] : causes) {
    if (state == of_repository) return {cause, true};
  }
  return {kPoweredOff, true};
}

LibvirtGuestControl::HypervisorStatus LibvirtGuestControl::StopDomain(const std::string& guest_id) {
  const CancelResult cancelled = starts_.Cancel(guest_id);
  BeforeStep("end: start cancelled");
  const auto state = hypervisor_->StateOf(guest_id);
  HypervisorStatus done = hypervisor_->PowerOff(guest_id);
  // A guest that ended between the two calls is in the requested state.
  const bool was_active = state && IsActive(*state);
  if (!done && was_active && done.error().kind() == FailureKind::kNotRunning) done = HypervisorStatus();
  if (done || cancelled != CancelResult::kTooLate) return done;
  // The start may have created the domain only after the power-off.
  if (!starts_.AwaitEnd(guest_id, options_.fence_wait)) {
    return hypervisor::Failure(FailureKind::kBusy, "The guest is being started, and the start does not finish");
  }
  return hypervisor_->PowerOff(guest_id);
}

Result<void, Refusal> LibvirtGuestControl::Reboot(const std::string& guest_id, const Requester& requester) {
  return Perform(guest_id, "reboot", requester, [&] {
    return CallHypervisor(guest_id, [&] {
      shut_downs_->End(guest_id);
      end_reasons_.Cancel(guest_id);
      return hypervisor_->Reboot(guest_id);
    });
  });
}

Result<void, Refusal> LibvirtGuestControl::Fence(const std::string& guest_id) {
  shut_downs_->End(guest_id);
  end_reasons_.Expect(guest_id, {records::ShutdownCause::kFenced, true});
  const HypervisorStatus done = StopDomain(guest_id);
  if (!done) end_reasons_.Cancel(guest_id);
  ReconcileWhenFree(guest_id);
  if (done) return {};
  const FailureKind kind = done.error().kind();
  if (kind == FailureKind::kNotRunning || kind == FailureKind::kNoSuchGuest) return {};
  Refusal refusal = RefusalOf(done.error());
  if (kind == FailureKind::kBusy) refusal.code = host_error::kUnavailable;
  return refusal;
}

Result<void, Refusal> LibvirtGuestControl::CheckNotRunning(const std::string& guest_id) {
  const auto state = hypervisor_->StateOf(guest_id);
  if (state) {
    if (!IsActive(*state)) return {};
    return Refusal{host_error::kAlreadyRunning, "The guest still runs on this host. Power it off first"};
  }
  const FailureKind kind = state.error().kind();
  // libvirt cannot have a domain with an invalid id.
  if (kind == FailureKind::kNoSuchGuest || kind == FailureKind::kInvalid) return {};
  return Refusal{host_error::kUnavailable,
                 fmt::format("It is unknown whether the guest runs: {}", state.error().ToString())};
}

Result<void, Refusal> LibvirtGuestControl::Delete(const std::string& guest_id, const Requester& requester) {
  return Perform(guest_id, "delete", requester, [&] {
    // The cleanup after the guest's last run may not have been done yet.
    Reconcile(guest_id);
    Result<void, Refusal> deleted = deletion_.Delete(guest_id, requester);
    if (deleted.ok()) RemoveListedDefinition(guest_id);
    return deleted;
  });
}

Result<Json::Value, Refusal> LibvirtGuestControl::Create(const Json::Value& parameters, const Requester& requester) {
  const auto guest_id = RandomUuid();
  if (!guest_id) return RefusalOf(guest_id.error());
  Json::Value answer;
  const auto performed = Perform(*guest_id, "create", requester, [&]() -> Result<void, Refusal> {
    auto created = creations_.Create(*guest_id, parameters, requester);
    if (!created.ok()) return created.error();
    answer = *std::move(created);
    return {};
  });
  if (!performed.ok()) return performed.error();
  return answer;
}

Result<void, Refusal> LibvirtGuestControl::Import(const ImportRequest& request, const GuestImport::Options& importing,
                                                  const Requester& requester, ImportedGuest& imported) {
  const auto images = domain_xml::ParseDomainImages(request.xml);
  if (!images) return Refusal{host_error::kBadParameter, images.error().ToString()};
  const auto import = [&] { return creations_.Import(request, importing, requester, imported); };
  // Without an id, it is refused.
  if (importing.mode == ImportMode::kCheck || images->id.empty()) return import();
  return Perform(images->id, "import", requester, import);
}

Result<void, Refusal> LibvirtGuestControl::SetHost(const std::string& guest_id, const std::string& host_id) {
  const records::RequestPause without_reader;
  Result<void, Refusal> allowed = CheckNotHeld(guest_id);
  if (allowed.ok()) allowed = CheckNotRunning(guest_id);
  if (!allowed.ok()) return allowed;
  const Status committed =
      records::CommitWithRetry(*options_.store, [&](const records::Reader& reader) -> Result<store::Transaction> {
        allowed = {};
        const auto host = records::LoadObject(reader, records::ObjectKey(VexaCCC::DB::DashCate::Host.name(), host_id));
        if (!host) return host.error();
        if (host->revision == 0) return Error(ErrorCode::kNotFound, fmt::format("There is no host '{}'", host_id));
        auto guest = records::LoadObject(reader, records::GuestObjectKey(guest_id));
        if (!guest) return guest.error();
        if (guest->revision == 0) return Error(ErrorCode::kNotFound, "There is no such guest");
        store::Transaction transaction;
        const auto lock = FindLock(reader, guest_id);
        if (!lock) return lock.error();
        if (*lock) {
          allowed = CheckNotHeld(reader, guest_id);
          if (!allowed.ok()) return transaction;
        }
        CompareFree(transaction, guest_id);
        // libvirt on the previous host could start its definition at boot, beside the guest on its new host.
        const Json::Value& before = json::Member(guest->record, keys::host_id);
        const std::string host_before = before.isString() ? json::String(before) : std::string();
        const std::string undefine_key = records::UndefineKey(host_before, guest_id);
        if (!host_before.empty() && host_before != host_id && store::IsValidKey(undefine_key)) {
          transaction.operations.push_back({undefine_key, "true"});
        }
        guest->record[keys::host_id] = host_id;
        records::PutObject(transaction, records::GuestObjectKey(guest_id), *guest);
        return transaction;
      });
  if (!allowed.ok()) return allowed;
  if (!committed) return RefusalOf(committed.error());
  return {};
}

bool LibvirtGuestControl::RepeatPress(const std::string& guest_id) {
  if (stopping_) return false;
  const HypervisorStatus pressed = hypervisor_->ShutDown(guest_id);
  if (pressed) return true;
  const FailureKind kind = pressed.error().kind();
  return kind != FailureKind::kNotRunning && kind != FailureKind::kNoSuchGuest;
}

}  // namespace vexa::guests
