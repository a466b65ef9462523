// The machine's own accounts, read from its files without the name service, which may hang with a directory behind it.
#pragma once

#include <memory>
#include <string>

#include "host/accounts/accounts.h"

namespace vexa::accounts {

struct LocalAccountOptions {
  std::string user_file = "/etc/passwd";                // passwd(5)
  std::string group_file = "/etc/group";                // group(5)
  std::string shadow_file = "/etc/shadow";              // shadow(5)
  std::string administrators_group = "administrators";  // members are administrators
};

// Root (uid 0) is always an administrator. Groups of other sources are missing, so users may have fewer rights than
// usual. Stamps are those of the name service where its shadow entries are in the file. Passwords cannot be verified:
// kUnavailable.
std::unique_ptr<AccountProvider> MakeLocalAccounts(const LocalAccountOptions& options);

}  // namespace vexa::accounts
