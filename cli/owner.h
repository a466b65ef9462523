// Checks that a command that works on the daemon's files runs as the account that owns them.
#pragma once

#include <string>

#include "host/base/result.h"

namespace vexa::cli {

// kNotFound when `path` does not exist. kDenied when another account owns it: the daemon could not open a file that
// another account replaces or creates. The error names the account to use.
Status CheckOwner(const std::string& path);

// The same for a file that may be missing: the owner of its folder is checked then.
Status CheckOwnerOrFolder(const std::string& path);

}  // namespace vexa::cli
