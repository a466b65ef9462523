// Where a host's accounts come from, as its daemon last noted: for commands that have only the data folder.
#pragma once

#include <string>

#include "host/base/result.h"

namespace vexa::cluster {

enum class AccountSource { kStore, kPam };

// Stores it: the file "accounts-from" in the data folder says "pam", or does not exist. Errors: those of the file.
Status NoteAccountSource(const std::string& data_directory, AccountSource source);

// The value last stored; kStore when nothing can be read.
AccountSource KnownAccountSource(const std::string& data_directory);

}  // namespace vexa::cluster
