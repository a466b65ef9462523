// The records about who holds a host id; see host_claim.h.
//
//   /host_claim/<host id>        {"incarnation", "booted", "token", "place", "addresses", "boot", "name",
//                                 "since" (Unix seconds), "released": true after a stop that was not a crash,
//                                 "forgotten": {"by", "time"} once the host was removed from the cluster}
//   /fence/<host id>/<guest id>  {"incarnation", "by", "time" (Unix seconds)}: the guest was taken from the host while
//                                it was gone; the host ends the guest's machine before anything else, and removes the
//                                note
#pragma once

#include <json/value.h>

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

#include "host/base/result.h"
#include "host/store/store.h"

namespace vexa::cluster {

std::string HostClaimKey(const std::string& host_id);
std::string FenceKey(const std::string& host_id, const std::string& guest_id);

// Whether an administrator has removed the host from the cluster.
bool IsForgotten(const Json::Value& claim);

// The number of the daemon that holds the host id, or held it last; 0 without a claim. It only ever increases.
std::uint64_t IncarnationOf(const Json::Value& claim);
// The number of the first daemon since the host's machine was started: guests of earlier daemons have ended with the
// machine.
std::uint64_t BootedIncarnationOf(const Json::Value& claim);

// Who makes which change to a host, for records and log lines.
struct Deed {
  std::string by;
  std::chrono::system_clock::time_point time;
};

// Changes a loaded claim so that the daemon that holds it cannot commit anything until it has read the notes below
// /fence. Returns the new number.
std::uint64_t FenceClaim(Json::Value& claim);
// The same, for a host that must not come back.
void ForgetClaim(Json::Value& claim, const Deed& deed);

std::string FenceNote(std::uint64_t incarnation, const Deed& deed);
// The guests that were taken from the host. Errors: those of the store.
Result<std::vector<std::string>> FencedGuests(const store::Store& store, const std::string& host_id);

}  // namespace vexa::cluster
