// The account provider that this process uses.
#pragma once

#include <memory>

#include "host/accounts/accounts.h"

namespace vexa::base {

// Null uninstalls it. Threads: call it while no request runs.
void InstallAccounts(std::shared_ptr<const AccountProvider> accounts);

// Null when none is installed. Valid until the next InstallAccounts.
const AccountProvider* CurrentAccounts();

}  // namespace vexa::base
