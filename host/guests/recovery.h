// Takes guests from a host that is gone, and removes such a host from the cluster.
//
// Only its own host knows whether a guest is still running. When the host is gone (records/host_liveness.h), a guest is
// taken from it only after an administrator has confirmed that the host's machine is off, or when the number of the
// host's claim (cluster/host_claim.h) proves that the guest has ended, because the host's machine was restarted since.
// The commit renumbers the host's claim and writes a fence record for the guest. A host that comes back therefore
// commits nothing before it has stopped the guest's domain.
// Threads: any, at the same time; any host of the cluster may do it.
#pragma once

#include <string>
#include <vector>

#include "host/base/refusal.h"
#include "host/base/result.h"
#include "host/store/store.h"
#include "webapi/error_codes.h"

namespace vexa::guests {

// Codes that only these operations use.
using user_error::kHostHasGuests;
using user_error::kHostIsAlive;
using user_error::kNotConfirmed;
using user_error::kSavedMemoryLost;

enum class MachineState { kUnknown, kConfirmedOff };  // of the machine of the host that is gone
enum class SavedMemory { kKeep, kDiscard };

struct RecoverRequest {
  std::string guest_id;
  std::string to_host_id;  // the guest's new host; empty: one is chosen at its next start
  MachineState machine = MachineState::kUnknown;
  SavedMemory saved = SavedMemory::kKeep;
  std::string user;  // who requested it
};

// Takes the guest from its host. The guest is then recorded as shut down, by force and because its host was offline.
// Refusals: 403 (no such guest, or no host `to_host_id`), 911 (the guest has no host), 971 (its host is alive, or
// `to_host_id` is not), 972, 974, 901. After a refusal nothing has changed.
Result<void, Refusal> RecoverGuest(store::Store& store, const RecoverRequest& request);

enum class GuestsOfHost { kKeep, kRecover };  // whether guests that the host still holds are recovered first

struct ForgetRequest {
  std::string host_id;
  MachineState machine = MachineState::kUnknown;
  GuestsOfHost guests = GuestsOfHost::kKeep;
  std::string user;
};

// Removes the record of a host that is gone, and ends its unfinished jobs (abandoned_jobs.h). Guests that name it and
// are off then have no host; its repositories stay inaccessible until they get another host. The host can come back
// only as a new host, or with an administrator's consent on its own machine. Refusals: 403 (no such host), 971 (it is
// alive, or it is the host that was asked), 972, 973 (with the guests' names), 901. Guests that were recovered before a
// refusal stay recovered.
Result<void, Refusal> ForgetHost(store::Store& store, const ForgetRequest& request);

}  // namespace vexa::guests
