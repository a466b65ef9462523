// The records about which daemon holds a host id; see cluster/host_claim.h.
//
//   /host_claim/<host id>        {"incarnation", "booted", "token", "place", "addresses", "boot", "name",
//                                 "since" (Unix seconds), "released": true after a stop that was not a crash,
//                                 "forgotten": {"by", "time"} once the host was removed from the cluster}
//   /fence/<host id>/<guest id>  {"incarnation", "by", "time" (Unix seconds)}: the guest was taken from the host while
//                                it was gone; the host destroys the guest's domain before anything else, and removes
//                                this fence record
#pragma once

#include <json/value.h>

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

#include "host/base/result.h"
#include "host/store/store.h"

namespace vexa::records {

std::string HostClaimKey(const std::string& host_id);
// All fence records of a host lie below this key; see FenceKey.
std::string FencesPrefix(const std::string& host_id);
std::string FenceKey(const std::string& host_id, const std::string& guest_id);

// Whether an administrator has removed the host from the cluster.
bool IsForgotten(const Json::Value& claim);

// The incarnation of the daemon that holds the host id, or held it last; 0 without a claim. It only ever increases.
std::uint64_t IncarnationOf(const Json::Value& claim);
// The incarnation of the first daemon since the physical machine was booted: guests that earlier daemons ran have ended
// with that boot.
std::uint64_t FirstIncarnationSinceBoot(const Json::Value& claim);

// Who changed a host's claim, and when; for records and log lines.
struct ChangeAuthor {
  std::string by;
  std::chrono::system_clock::time_point time;
};

// Gives the claim the next incarnation, and returns it. The daemon that held the claim before cannot commit anything
// until it has renewed it.
std::uint64_t AdvanceIncarnation(Json::Value& claim);
// The same, for a host that must not come back.
void ForgetClaim(Json::Value& claim, const ChangeAuthor& author);

// The JSON text of a fence record.
std::string SerializeFence(std::uint64_t incarnation, const ChangeAuthor& author);
// The ids of the guests that were taken from the host. Errors: those of the store.
Result<std::vector<std::string>> FencedGuests(const store::Store& store, const std::string& host_id);

}  // namespace vexa::records
