// What users see about hosts that are gone, and about guests on them.
#pragma once

#include <json/value.h>

#include <chrono>
#include <string>

#include "host/api/api_table.h"
#include "host/records/host_life.h"

namespace vexa::services {

// Sets in `shown`, the answer about an object of the host that `life` is about:
//   age_s               how old it is in whole seconds: `age`, or the age of the last sign of life when that is older
//   inaccessible_since  for a host that is gone: the Unix second of its last sign of life, when that is known
void ShowLife(const cluster::HostLife& life, std::chrono::system_clock::time_point now, std::chrono::seconds age,
              Json::Value& shown);

// Like LifeOf, but a host whose life cannot be read counts as alive, and so does an empty id.
cluster::HostLife LifeOrAlive(const std::string& host_id);

// The host without which a method cannot act on a guest.
enum class NeededHost {
  kHolder,         // the one that has the guest; none when the guest is off
  kHolderOrNamed,  // also the one that the guest's record names, which is asked
};

// A sentence about the needed host: since when it has been gone, and what can be done. Empty when it is not gone.
std::string GoneHostReason(const std::string& guest_id, NeededHost needed);

// A handler for a method that acts on the guest "guest_id": its errors get GoneHostReason() as their reason, unless
// they are about the request or the caller's rights.
webapi::Handler WithGoneHostReason(webapi::Handler handler, NeededHost needed);

}  // namespace vexa::services
