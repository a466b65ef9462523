// Taking guests from a host that is gone, and removing such a host from the cluster.
//
// Nobody but its own host knows whether a guest's machine runs. When the host is gone (cluster/host_life.h), a guest is
// taken from it only after an administrator has confirmed that its machine is off, or when the number of the host's
// claim (cluster/host_claim.h) proves that the guest's machine has ended: the host's machine was started again since.
// The commit renumbers the host's claim and leaves it a note, so that a host which comes back commits nothing, and ends
// the guest's machine, before it goes on.
// Threads: any, at the same time; any host of the cluster may do it.
#pragma once

#include <string>
#include <vector>

#include "host/base/refusal.h"
#include "host/base/result.h"
#include "host/store/store.h"

namespace vexa::guests {

// Codes of these operations alone.
inline constexpr int kHostIsAlive = 971;      // the host gives signs of life
inline constexpr int kNotConfirmed = 972;     // nobody has confirmed that the machine is off
inline constexpr int kHostHasGuests = 973;    // the host still has guests
inline constexpr int kSavedMemoryLost = 974;  // the guest's saved memory is on the host, and would be lost

enum class MachineIs { kUnknown, kConfirmedOff };
enum class SavedMemory { kKeep, kDiscard };

struct RecoverRequest {
  std::string guest_id;
  std::string to_host_id;  // the guest's host from now on; empty: one is chosen at its next start
  MachineIs machine = MachineIs::kUnknown;
  SavedMemory saved = SavedMemory::kKeep;
  std::string user;  // who asks
};

// Takes the guest from its host: it is shut down from then on, by force and since its host was offline.
// Refusals: 403 (no such guest, or no host `to_host_id`), 911 (the guest has no host that it could be taken from), 971
// (also when `to_host_id` is gone: it must be alive), 972, 974, 901. Nothing has changed then.
Refused RecoverGuest(store::Store& store, const RecoverRequest& request);

enum class GuestsOfHost { kKeep, kRecover };

struct ForgetRequest {
  std::string host_id;
  MachineIs machine = MachineIs::kUnknown;
  GuestsOfHost guests = GuestsOfHost::kKeep;
  std::string user;
};

// Removes the record of a host that is gone. Guests that are off and name it have no host afterwards; its repositories
// stay, as inaccessible ones, until they get another host. It can come back as a new host only, or with an
// administrator's consent on its own machine.
// Refusals: 403 (no such host), 971 (it is alive, or it is the host that is asked), 972, 973 (with the guests' names),
// 901. Guests that have been recovered by then stay so.
Refused ForgetHost(store::Store& store, const ForgetRequest& request);

}  // namespace vexa::guests
