// The account provider that this process uses.
#pragma once

#include <memory>

#include "host/accounts/accounts.h"

namespace vexa::accounts {

// Replaces the account provider; null removes it. Threads: call it only while no request runs.
void InstallAccounts(std::shared_ptr<const AccountProvider> accounts);

// The installed account provider, or null. Valid until the next InstallAccounts.
const AccountProvider* CurrentAccounts();

}  // namespace vexa::accounts
