// Where the claims of host ids are, and what they hold; see host_claim.h.
#pragma once

#include <json/value.h>

#include <string>

namespace vexa::cluster {

std::string HostClaimKey(const std::string& host_id);

// Whether an administrator has removed the host from the cluster.
bool IsForgotten(const Json::Value& claim);

}  // namespace vexa::cluster
