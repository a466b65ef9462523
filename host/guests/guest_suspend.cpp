// Suspends and resumes the guests of this host, and saves their memory.
#include <utility>

#include "host/guests/guest_control_impl.h"

namespace vexa::guests {

Result<records::Run, Refusal> LibvirtGuestControl::RunHere(const std::string& guest_id) {
  if (const auto allowed = CheckRecord(guest_id); !allowed.ok()) return allowed.error();
  // Its start, or its end, may not be recorded yet.
  Reconcile(guest_id);
  auto stored = records::ReadRun(*options_.store, guest_id);
  if (!stored) return RefusalOf(stored.error());
  if (!*stored || (*stored)->run.saved) return Refusal{host_error::kNotRunning, "The guest does not run"};
  if ((*stored)->run.host_id != options_.host_id) return OnOtherHost((*stored)->run.host_id);
  return std::move((*stored)->run);
}

Result<void, Refusal> LibvirtGuestControl::CheckRunsHere(const std::string& guest_id) {
  const auto run = RunHere(guest_id);
  if (!run.ok()) return run.error();
  if (!IsBeingRestored(guest_id, *run)) return {};
  return Refusal{host_error::kBusy,
                 "The guest was restored from its saved memory and has not run yet. The system log has the reason"};
}

Result<void, Refusal> LibvirtGuestControl::Suspend(const std::string& guest_id, const Requester& requester) {
  return Perform(guest_id, "suspend", requester, [&]() -> Result<void, Refusal> {
    if (const auto allowed = CheckRunsHere(guest_id); !allowed.ok()) return allowed;
    BeforeStep("suspend: asked");
    const HypervisorStatus suspended = hypervisor_->Suspend(guest_id);
    BeforeStep("suspend: done");
    if (!suspended) return RefusalOf(suspended.error());
    // It cannot react to its power button now.
    shut_downs_->End(guest_id);
    end_reasons_.Cancel(guest_id);
    return {};
  });
}

Result<void, Refusal> LibvirtGuestControl::Resume(const std::string& guest_id, const Requester& requester) {
  return Perform(guest_id, "resume", requester, [&]() -> Result<void, Refusal> {
    const auto run = RunHere(guest_id);
    if (!run.ok()) return run.error();
    if (IsBeingRestored(guest_id, *run)) return FinishRestore(guest_id);
    BeforeStep("resume: asked");
    // The last check before two domains could write to the same disks.
    if (const auto allowed = CheckClaimHeld(); !allowed.ok()) return allowed;
    const HypervisorStatus resumed = hypervisor_->Resume(guest_id);
    BeforeStep("resume: done");
    if (!resumed) return RefusalOf(resumed.error());
    return {};
  });
}

Result<void, Refusal> LibvirtGuestControl::Save(const std::string& guest_id, const Requester& requester) {
  return Perform(guest_id, "save", requester, [&]() -> Result<void, Refusal> {
    if (const auto allowed = CheckRunsHere(guest_id); !allowed.ok()) return allowed;
    BeforeStep("save: asked");
    // Until the reconciliation that follows, /run says that the guest runs: it does, or the next reconciliation, also
    // that of the next daemon, finds its saved memory.
    const HypervisorStatus saved = hypervisor_->Save(guest_id);
    BeforeStep("save: done");
    if (!saved) return RefusalOf(saved.error());
    return {};
  });
}

}  // namespace vexa::guests
