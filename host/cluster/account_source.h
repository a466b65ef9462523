// Where the accounts of a host come from, as its daemon last said it: for commands that have only the data folder.
#pragma once

#include <string>

#include "host/base/result.h"

namespace vexa::cluster {

enum class AccountSource { kStore, kPam };

// Remembers it: the file "accounts-from" in the data folder says "pam", or does not exist. Errors: the file's.
Status NoteAccountSource(const std::string& data_directory, AccountSource source);

// What was last remembered; kStore when nothing can be read.
AccountSource KnownAccountSource(const std::string& data_directory);

}  // namespace vexa::cluster
