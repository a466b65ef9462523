// Checks that a command that works on the daemon's files runs as the account that owns them.
#pragma once

#include <sys/types.h>

#include <string>

#include "host/base/result.h"

namespace vexa::cli {

// kNotFound when `path` does not exist. kDenied when another account owns it: the daemon could not open a file that
// another account replaces or creates. The error names the account to use.
Status CheckOwner(const std::string& path);

// The same for a file that may be missing: the owner of its folder is checked then.
Status CheckOwnerOrFolder(const std::string& path);

// When root works on the files of another account, such as the service's: runs as that account from now on, so that
// what the command makes belongs to it. The owner of `folder` decides; a missing folder has no effect.
Status BecomeOwner(const std::string& folder);

// The account and the data folder of the service.
inline constexpr const char* kServiceAccount = "vexa";
inline constexpr const char* kServiceFolder = "/var/lib/vexa";

// When root works on the service's data folder before the first start: makes it for the service's account.
Status MakeServiceFolder(const std::string& folder);

// Makes the folder for `account`, with this mode, or gives it and the files of root in it and in its folder "store" to
// that account. Links in it are not followed, and it may be one only when root made it. Only for root.
// Errors: kNotFound (no such account), kDenied, those of CreateDirectories.
Status GiveFolder(const std::string& folder, const std::string& account, mode_t mode);

}  // namespace vexa::cli
