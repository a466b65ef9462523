// Who may open the console of a guest: administrators, and users to whom the guest was granted together with its
// console. A console shows what the guest's user sees, and types what the guest's user could, so a grant of the guest
// alone does not include it.
#pragma once

#include <string>

#include "host/accounts/accounts.h"
#include "host/base/result.h"
#include "host/store/store.h"

namespace vexa::cluster {

// `user` as it was looked up, with its groups. Errors: those of the store, and kCorrupt for a damaged record.
Result<bool> MayOpenConsole(const store::Snapshot& snapshot, const accounts::User& user, const std::string& guest_id);

}  // namespace vexa::cluster
