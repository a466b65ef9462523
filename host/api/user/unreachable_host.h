// Members and sentences of replies about hosts that are gone, and about guests on them.
#pragma once

#include <json/value.h>

#include <chrono>
#include <string>

#include "host/api/api_table.h"
#include "host/records/host_liveness.h"

namespace vexa::api {

// Sets in `shown`, a reply about something on the host whose liveness is `life`:
//   age_s               how old it is in whole seconds: `age`, or the age of the last heartbeat when that is older
//   inaccessible_since  for a host that is gone: the Unix second of its last heartbeat, when that is known
void AddLiveness(const records::HostLiveness& life, std::chrono::system_clock::time_point now, std::chrono::seconds age,
                 Json::Value& shown);

// Like LivenessOf, but a host whose liveness cannot be read counts as alive, and so does an empty id.
records::HostLiveness LivenessOrAlive(const records::Reader& reader, const std::string& host_id);

// The host that has the guest according to its run record; empty when the guest is off, or when that cannot be read.
std::string HolderOf(const records::Reader& reader, const std::string& guest_id);

// The host without which a method cannot act on a guest.
enum class NeededHost {
  kHolder,            // the host that has the guest according to its run record; none when the guest is off
  kHolderOrAssigned,  // also the host that the guest is assigned to
};

// In the newest state, a sentence about the needed host: how long it has been gone, and what to do about it. Empty when
// it is not gone.
std::string GoneHostReason(const std::string& guest_id, NeededHost needed);

// A handler for a method that acts on the guest "guest_id": its errors get GoneHostReason() as their reason, unless
// they are about the request or the caller's rights.
Handler WithGoneHostReason(Handler handler, NeededHost needed);

}  // namespace vexa::api
