// Which guests a host starts after its machine was booted.
//
//   /autorun/<host id>  {"booted", "guests": ["<guest id>", …]}: the guests that are still to be started, in that
//   order.
//                       "booted" is the incarnation of the first daemon since the boot (cluster/host_claim.h): a boot
//                       for which the list was made already makes no new one
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "host/base/result.h"
#include "host/cluster/host_claim.h"
#include "host/store/store.h"

namespace vexa::guests {

// What a guest was when its host's machine went down.
enum class BeforeBoot { kOff, kRan, kSaved };

// Whether a guest with the setting `autorun` (0: never, 1: always, 2: as it was before) is started after a boot. A
// guest with saved memory was off before, and is restored only with 1. Other values count as 0.
bool StartsAfterBoot(int autorun, BeforeBoot before);

std::string AutorunKey(const std::string& host_id);

struct AutorunList {
  std::uint64_t booted = 0;  // 0: there is no list, or it is damaged
  std::vector<std::string> guest_ids;
};

// Errors: those of the store.
Result<AutorunList> ReadAutoruns(const store::Store& store, const std::string& host_id);

// Stores, once after each boot, which guests of the host are to be started, ordered by name. Call it before anything
// removes the runs of guests that ended with the machine. Without an earlier list only the first daemon since the boot
// makes one, so that an upgrade of a running host starts nothing. Errors: those of the store.
Status PlanAutoruns(store::Store& store, const std::string& host_id, const cluster::HostClaim& claim);

// Removes the guest from the list, if it is in it. Errors: those of the store.
Status RemoveAutorun(store::Store& store, const std::string& host_id, const std::string& guest_id);

}  // namespace vexa::guests
