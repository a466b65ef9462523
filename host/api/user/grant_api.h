// VEXA.Core.Account: which guests users and groups may use, and whether they are advanced.
#pragma once

#include <vector>

#include "host/api/api_table.h"
#include "host/api/user/account_calls.h"

namespace vexa::api {

// For administrators. Users and groups are those of the cluster or, with "system", of the operating system. Daemons
// that take their users from PAM refuse those of the cluster, and the others refuse those of the operating system.
std::vector<ApiRow> GrantRows(const AccountServices& services);

}  // namespace vexa::api
