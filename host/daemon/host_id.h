// This host's id.
#pragma once

#include <string>

#include "host/base/result.h"
#include "host/cluster/host_claim.h"

namespace vexa::daemon {

// Who claims the host id of the data folder: see cluster/host_claim.h. Errors: what the system says of the file.
Result<cluster::ClaimIdentity> IdentityOfHost(const std::string& data_directory);

// The UUID in the file "host-id" of the data folder; a new random one (RFC 4122, version 4) is written at the first
// start. kCorrupt when the file holds something else.
Result<std::string> LoadHostId(const std::string& data_directory);

}  // namespace vexa::daemon
