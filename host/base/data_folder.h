// Whether a data folder is safe to use.
#pragma once

#include <string>

#include "host/base/result.h"

namespace vexa {

// kDenied when its group or everybody can write to `data_directory`: they could replace the database, the accounts'
// passwords and the host's id. A folder that does not exist is not an error.
Status CheckDataFolder(const std::string& data_directory);

}  // namespace vexa
