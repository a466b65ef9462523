// The account provider that uses the machine's own accounts: PAM checks passwords (pam(3)), the name service has the
// users and groups (nsswitch.conf(5)).
#pragma once

#include <memory>
#include <string>

#include "host/accounts/accounts.h"

namespace vexa::accounts {

struct PamOptions {
  std::string service = "vexad";  // PAM service name
  std::string config_directory;   // instead of /etc/pam.d; "": /etc/pam.d
  std::string auth_socket;  // of the service that checks passwords; "", or while it does not exist: this process does
  std::string administrators_group = "administrators";  // members are administrators
  std::string shadow_file = "/etc/shadow";              // shadow(5)
};

// Root (uid 0) is always an administrator. A user without an entry in the name service does not exist for this
// provider, even if PAM accepts the password.
std::unique_ptr<AccountProvider> MakePamAccounts(const PamOptions& options);

}  // namespace vexa::accounts
