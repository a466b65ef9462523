// Commands that work on the host's own files run as the account that owns them.
#pragma once

#include <string>

#include "host/base/result.h"

namespace vexa::cli {

// kNotFound when `path` does not exist. kDenied when another account owns it: a file that is replaced or created by the
// wrong account locks the daemon out. The error says which account to use.
Status CheckOwner(const std::string& path);

// The same for a file that may be missing: in that case its folder decides.
Status CheckOwnerOrFolder(const std::string& path);

}  // namespace vexa::cli
