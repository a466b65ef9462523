// Where a host's accounts come from, as its daemon last recorded it: for commands that have only the data folder.
#pragma once

#include <string>

#include "host/base/result.h"

namespace vexa::cluster {

enum class AccountSource { kStore, kPam };

// Stores the source in the data folder: the file "accounts-from" contains "pam", or does not exist for kStore. Errors:
// those of the file.
Status SaveAccountSource(const std::string& data_directory, AccountSource source);

// The value last stored; kStore when nothing can be read.
AccountSource LoadAccountSource(const std::string& data_directory);

}  // namespace vexa::cluster
