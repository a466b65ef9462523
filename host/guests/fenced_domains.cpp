#include "host/guests/fenced_domains.h"

#include <syslog.h>

#include <optional>
#include <utility>

#include "host/records/host_claim_record.h"

namespace vexa::guests {
namespace {

using hypervisor::FailureKind;
using hypervisor::GuestState;
using hypervisor::Hypervisor;

Status StopDomain(Hypervisor& hypervisor, const std::string& guest_id) {
  const auto ended = hypervisor.PowerOff(guest_id);
  const bool is_over =
      ended || ended.error().kind() == FailureKind::kNotRunning || ended.error().kind() == FailureKind::kNoSuchGuest;
  if (!is_over) return ended.error();
  const auto state = hypervisor.StateOf(guest_id);
  if (state && *state == GuestState::kSaved) {
    if (const auto discarded = hypervisor.DiscardSaved(guest_id); !discarded) return discarded.error();
  }
  return {};
}

}  // namespace

Status StopFencedDomains(store::Store& store, const std::string& host_id, hypervisor::HypervisorOptions options) {
  const auto guest_ids = records::FencedGuests(store, host_id);
  if (!guest_ids) return guest_ids.error();
  if (guest_ids->empty()) return {};
  auto opened = Hypervisor::Open(std::move(options));
  if (!opened) return opened.error();
  Status all;
  for (const std::string& guest_id : *guest_ids) {
    if (Status ended = StopDomain(**opened, guest_id); !ended) {
      all = std::move(ended);
      continue;
    }
    const auto removed = store.Commit({{}, {{records::FenceKey(host_id, guest_id), std::nullopt}}});
    if (!removed) return removed.error();
    ::syslog(LOG_WARNING, "The guest %s was taken from this host while it was gone: its domain here has been stopped.",
             guest_id.c_str());
  }
  return all;
}

}  // namespace vexa::guests
