// What users are told about hosts that are gone, and about guests that are on them.
#pragma once

#include <json/value.h>

#include <chrono>
#include <string>

#include "host/api/api_table.h"
#include "host/records/host_life.h"

namespace vexa::services {

// Sets in `shown`, what is answered about an object that `life` speaks for:
//   age_s               how old it is in whole seconds: `age`, or the age of the last sign of life when that is older
//   inaccessible_since  of a host that is gone: the Unix second of its last sign of life, when that is known
void ShowLife(const cluster::HostLife& life, std::chrono::system_clock::time_point now, std::chrono::seconds age,
              Json::Value& shown);

// As LifeOf; a host of which that cannot be read counts as alive, and so does the host without an id.
cluster::HostLife LifeOrAlive(const std::string& host_id);

// Which host keeps a method from acting on a guest when it is gone.
enum class NeededHost {
  kHolder,         // the one that has the guest; none when the guest is off
  kHolderOrNamed,  // also the one that the guest's record names, which is asked
};

// A sentence about the host that is needed: since when it has been gone and what can be done. Empty when it is not
// gone.
std::string GoneHostReason(const std::string& guest_id, NeededHost needed);

// A handler of a method that acts on the guest "guest_id": the error that it answers gets GoneHostReason() as its
// reason, unless it is about the request or the caller's rights.
webapi::Handler WithGoneHostReason(webapi::Handler handler, NeededHost needed);

}  // namespace vexa::services
