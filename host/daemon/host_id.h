// This host's id.
#pragma once

#include <string>

#include "host/base/result.h"

namespace vexa::daemon {

// The UUID in the file "host-id" of the data folder; a new random one (RFC 4122, version 4) is written at the first
// start. kCorrupt when the file holds something else.
Result<std::string> LoadHostId(const std::string& data_directory);

}  // namespace vexa::daemon
