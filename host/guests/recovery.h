// Takes guests from a host that is gone, and removes such a host from the cluster.
//
// Only its own host knows whether a guest's machine runs. When the host is gone (cluster/host_life.h), a guest is taken
// from it only after an administrator has confirmed that its machine is off, or when the number of the host's claim
// (cluster/host_claim.h) proves that the guest's machine has ended: the host's machine was restarted since. The commit
// renumbers the host's claim and leaves it a note, so that a host that comes back commits nothing, and ends the guest's
// machine, before it continues.
// Threads: any, at the same time; any host of the cluster may do it.
#pragma once

#include <string>
#include <vector>

#include "host/base/refusal.h"
#include "host/base/result.h"
#include "host/store/store.h"

namespace vexa::guests {

// Codes that only these operations use.
inline constexpr int kHostIsAlive = 971;      // the host gives signs of life
inline constexpr int kNotConfirmed = 972;     // it was not confirmed that the machine is off
inline constexpr int kHostHasGuests = 973;    // the host still has guests
inline constexpr int kSavedMemoryLost = 974;  // the guest's saved memory is on the host, and would be lost

enum class MachineIs { kUnknown, kConfirmedOff };
enum class SavedMemory { kKeep, kDiscard };

struct RecoverRequest {
  std::string guest_id;
  std::string to_host_id;  // the guest's new host; empty: one is chosen at its next start
  MachineIs machine = MachineIs::kUnknown;
  SavedMemory saved = SavedMemory::kKeep;
  std::string user;  // the caller
};

// Takes the guest from its host. It then counts as shut down, by force and because its host was offline.
// Refusals: 403 (no such guest, or no host `to_host_id`), 911 (the guest has no host that it could be taken from), 971
// (also when `to_host_id` is gone: it must be alive), 972, 974, 901. After a refusal nothing has changed.
Refused RecoverGuest(store::Store& store, const RecoverRequest& request);

enum class GuestsOfHost { kKeep, kRecover };

struct ForgetRequest {
  std::string host_id;
  MachineIs machine = MachineIs::kUnknown;
  GuestsOfHost guests = GuestsOfHost::kKeep;
  std::string user;
};

// Removes the record of a host that is gone. Guests that name it and are off then have no host; its repositories stay
// inaccessible until they get another host. The host can come back only as a new host, or with an administrator's
// consent on its own machine.
// Refusals: 403 (no such host), 971 (it is alive, or it is the host that was asked), 972, 973 (with the guests' names),
// 901. Guests that were recovered before a refusal stay recovered.
Refused ForgetHost(store::Store& store, const ForgetRequest& request);

}  // namespace vexa::guests
