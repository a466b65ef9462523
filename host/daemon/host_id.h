// This host's id.
#pragma once

#include <string>

#include "host/base/result.h"
#include "host/cluster/host_claim.h"

namespace vexa::daemon {

// The identity with which the daemon claims the data folder's host id (cluster/host_claim.h). Errors: those of the
// system for the file "host-id".
Result<cluster::ClaimIdentity> LoadClaimIdentity(const std::string& data_directory);

// The UUID in the file "host-id" of the data folder. At the first start, a new random one (RFC 4122, version 4) is
// written. kCorrupt when the file contains anything else.
Result<std::string> LoadHostId(const std::string& data_directory);

}  // namespace vexa::daemon
