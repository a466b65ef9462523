// The account provider of a managed machine: PAM checks passwords (pam(3)), NSS knows users and groups
// (nsswitch.conf(5)).
#pragma once

#include <memory>
#include <string>

#include "host/accounts/accounts.h"

namespace vexa::base {

struct PamOptions {
  std::string service = "vexad";                        // PAM service name
  std::string config_directory;                         // instead of /etc/pam.d when set
  std::string administrators_group = "administrators";  // members are administrators
};

// Root (uid 0) is also an administrator. A user without a name service entry does not exist here, whatever PAM says.
std::unique_ptr<AccountProvider> MakePamAccounts(const PamOptions& options);

}  // namespace vexa::base
