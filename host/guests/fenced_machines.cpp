#include "host/guests/fenced_machines.h"

#include <syslog.h>

#include <optional>
#include <utility>

#include "host/records/host_claim_record.h"

namespace vexa::guests {
namespace {

using hypervisor::GuestState;
using hypervisor::Hypervisor;
using hypervisor::Problem;

Status EndMachine(Hypervisor& hypervisor, const std::string& guest_id) {
  const auto ended = hypervisor.PowerOff(guest_id);
  const bool is_over =
      ended || ended.failure().problem() == Problem::kNotRunning || ended.failure().problem() == Problem::kNoSuchGuest;
  if (!is_over) return ended.failure().error();
  const auto state = hypervisor.StateOf(guest_id);
  if (state && *state == GuestState::kSaved) {
    if (const auto discarded = hypervisor.DiscardSaved(guest_id); !discarded) return discarded.failure().error();
  }
  return {};
}

}  // namespace

Status EndFencedMachines(store::Store& store, const std::string& host_id, hypervisor::HypervisorOptions options) {
  const auto guest_ids = cluster::FencedGuests(store, host_id);
  if (!guest_ids) return guest_ids.error();
  if (guest_ids->empty()) return {};
  auto opened = Hypervisor::Open(std::move(options));
  if (!opened) return opened.failure().error();
  Status all;
  for (const std::string& guest_id : *guest_ids) {
    if (Status ended = EndMachine(**opened, guest_id); !ended) {
      all = std::move(ended);
      continue;
    }
    const auto removed = store.Commit({{}, {{cluster::FenceKey(host_id, guest_id), std::nullopt}}});
    if (!removed) return removed.error();
    ::syslog(LOG_WARNING, "The guest %s was taken from this host while it was gone: its machine here has been ended.",
             guest_id.c_str());
  }
  return all;
}

}  // namespace vexa::guests
