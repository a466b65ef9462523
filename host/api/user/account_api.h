// VEXA.Core.Account: the users and groups of the cluster. grant_api.h has the methods about grants.
#pragma once

#include <vector>

#include "host/api/api_table.h"
#include "host/api/user/account_calls.h"

namespace vexa::api {

// For administrators, except for "password_set": users may set their own password if they know the old one.
// If the daemon takes its users from PAM, all of them are refused.
std::vector<ApiRow> AccountRows(const AccountServices& services);

}  // namespace vexa::api
