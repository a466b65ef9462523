// Stops the guests that were taken from this host while it was gone. Until that is done, this host starts, stops and
// reports nothing.
#include <syslog.h>

#include <utility>

#include "host/base/mutex.h"
#include "host/guests/guest_control_impl.h"
#include "host/records/host_claim_record.h"

namespace vexa::guests {
namespace {

using hypervisor::FailureKind;
using hypervisor::GuestState;

bool IsNotRunning(FailureKind kind) { return kind == FailureKind::kNotRunning || kind == FailureKind::kNoSuchGuest; }

}  // namespace

Result<void, Refusal> LibvirtGuestControl::CheckClaimHeld() const {
  if (!options_.claim) return {};
  const Status held = options_.claim->Check();
  if (held) return {};
  return Refusal{host_error::kUnavailable, held.error().ToString()};
}

void LibvirtGuestControl::AddClaimCompare(store::Transaction& transaction) const {
  if (options_.claim) transaction.compares.push_back(options_.claim->Guard());
}

Result<void, Refusal> LibvirtGuestControl::CheckNotFenced(const std::string& guest_id) const {
  const auto snapshot = options_.store->Read();
  if (!snapshot) return RefusalOf(snapshot.error());
  const auto fence = (*snapshot)->Get(records::FenceKey(options_.host_id, guest_id));
  if (!fence) return RefusalOf(fence.error());
  if (!*fence) return {};
  return Refusal{
      host_error::kUnavailable,
      "The guest was taken from this host while it was gone, and its domain here could not be stopped yet. The "
      "system log has the reason"};
}

bool LibvirtGuestControl::StopFencedGuests() {
  const auto guest_ids = records::FencedGuests(*options_.store, options_.host_id);
  if (!guest_ids) {
    ::syslog(LOG_ERR, "Cannot read which guests were taken from this host: %s", guest_ids.error().ToString().c_str());
    return false;
  }
  bool all_stopped = true;
  for (const std::string& guest_id : *guest_ids) {
    const Status stopped = StopFencedGuest(guest_id);
    if (stopped) continue;
    all_stopped = false;
    const MutexLock lock(maintenance_mutex_);
    if (unreconciled_.insert(guest_id).second) {
      ::syslog(LOG_ERR, "The guest %s was taken from this host, and its domain here could not be stopped yet: %s",
               guest_id.c_str(), stopped.error().ToString().c_str());
    }
  }
  return all_stopped;
}

Status LibvirtGuestControl::StopFencedGuest(const std::string& guest_id) {
  const std::string key = records::FenceKey(options_.host_id, guest_id);
  store::Revision revision = 0;
  {
    const auto snapshot = options_.store->Read();
    if (!snapshot) return snapshot.error();
    const auto fence = (*snapshot)->Get(key);
    if (!fence) return fence.error();
    if (!*fence) return {};
    revision = (*fence)->revision;
  }
  shut_downs_->End(guest_id);
  BeforeStep("fenced: noticed");
  if (const HypervisorStatus ended = StopDomain(guest_id); !ended && !IsNotRunning(ended.error().kind()))
    return ended.error();
  const auto state = hypervisor_->StateOf(guest_id);
  if (!state && state.error().kind() != FailureKind::kNoSuchGuest) return state.error();
  // The saved memory is outdated: the guest has continued on its new host without it.
  if (state && *state == GuestState::kSaved) {
    if (const HypervisorStatus discarded = hypervisor_->DiscardSaved(guest_id); !discarded) return discarded.error();
  }
  if (state) {
    if (const Status cleaned = CleanUpRun(guest_id); !cleaned) return cleaned;
  }
  BeforeStep("fenced: ended");
  const auto committed = options_.store->Commit({{{key, revision}}, {{key, std::nullopt}}});
  if (!committed) return committed.error();
  ::syslog(LOG_WARNING, "The guest %s was taken from this host while it was gone: its domain here has been stopped.",
           guest_id.c_str());
  return {};
}

}  // namespace vexa::guests
