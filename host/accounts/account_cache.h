// Accounts of a directory that may be slow or hang, as the machine's name service is with a directory behind it.
#pragma once

#include <memory>

#include "host/accounts/accounts.h"
#include "host/accounts/lookup_cache.h"

namespace vexa::accounts {

// Finds users and groups through `directory`, whose answers are used for a few seconds. While it does not answer, users
// who are known from an earlier answer are found for some minutes, and those of `fallback` always. VerifyPassword asks
// the directory each time, and the user that it returns is used from then on.
std::unique_ptr<AccountProvider> MakeCachedAccounts(std::shared_ptr<const AccountProvider> directory,
                                                    std::shared_ptr<const AccountProvider> fallback,
                                                    const LookupOptions& options = {});

}  // namespace vexa::accounts
