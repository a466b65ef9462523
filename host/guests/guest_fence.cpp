// Guests that were taken from this host while it was gone: until that is settled, nothing is started, stopped or
// reported.
#include <syslog.h>

#include <utility>

#include "host/guests/guest_control_impl.h"
#include "host/records/host_claim_record.h"
#include "host/records/reading.h"

namespace vexa::guests {
namespace {

using hypervisor::GuestState;
using hypervisor::Problem;

bool IsOver(Problem problem) { return problem == Problem::kNotRunning || problem == Problem::kNoSuchGuest; }

}  // namespace

Refused LibvirtGuestControl::RefuseStale() const {
  if (!options_.claim) return {};
  cluster::RequestScope::ReleaseSnapshot();
  const Status held = options_.claim->Check();
  if (held) return {};
  return Refusal{kUnavailable, held.error().ToString()};
}

void LibvirtGuestControl::AddGuard(store::Transaction& transaction) const {
  if (options_.claim) transaction.compares.push_back(options_.claim->Guard());
}

Refused LibvirtGuestControl::RefuseFenced(const std::string& guest_id) const {
  const auto snapshot = options_.store->Read();
  if (!snapshot) return RefusalOf(snapshot.error());
  const auto note = (*snapshot)->Get(cluster::FenceKey(options_.host_id, guest_id));
  if (!note) return RefusalOf(note.error());
  if (!*note) return {};
  return Refusal{kUnavailable,
                 "The guest was taken from this host while it was gone, and its machine here "
                 "could not be ended yet; the system log has the reason"};
}

bool LibvirtGuestControl::SettleFenced() {
  const auto guest_ids = cluster::FencedGuests(*options_.store, options_.host_id);
  if (!guest_ids) {
    ::syslog(LOG_ERR, "Cannot read which guests were taken from this host: %s", guest_ids.error().ToString().c_str());
    return false;
  }
  bool is_settled = true;
  for (const std::string& guest_id : *guest_ids) {
    const Status settled = SettleFencedGuest(guest_id);
    if (settled) continue;
    is_settled = false;
    const std::lock_guard lock(maintenance_mutex_);
    if (unsettled_.insert(guest_id).second) {
      ::syslog(LOG_ERR, "The guest %s was taken from this host, and its machine here could not be ended yet: %s",
               guest_id.c_str(), settled.error().ToString().c_str());
    }
  }
  return is_settled;
}

Status LibvirtGuestControl::SettleFencedGuest(const std::string& guest_id) {
  const std::string key = cluster::FenceKey(options_.host_id, guest_id);
  store::Revision revision = 0;
  {
    const auto snapshot = options_.store->Read();
    if (!snapshot) return snapshot.error();
    const auto note = (*snapshot)->Get(key);
    if (!note) return note.error();
    if (!*note) return {};
    revision = (*note)->revision;
  }
  shut_downs_->End(guest_id);
  Step("fenced: noticed");
  if (const Done ended = EndRun(guest_id); !ended && !IsOver(ended.failure().problem())) return ended.failure().error();
  const auto state = hypervisor_->StateOf(guest_id);
  if (!state && state.failure().problem() != Problem::kNoSuchGuest) return state.failure().error();
  // The guest's new host has continued without the saved memory.
  if (state && *state == GuestState::kSaved) {
    if (const Done discarded = hypervisor_->DiscardSaved(guest_id); !discarded) return discarded.failure().error();
  }
  if (state) {
    if (const Status down = TakeDown(guest_id); !down) return down;
  }
  Step("fenced: ended");
  const auto committed = options_.store->Commit({{{key, revision}}, {{key, std::nullopt}}});
  if (!committed) return committed.error();
  ::syslog(LOG_WARNING, "The guest %s was taken from this host while it was gone: its machine here has been ended.",
           guest_id.c_str());
  return {};
}

}  // namespace vexa::guests
