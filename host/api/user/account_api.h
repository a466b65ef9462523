// VEXA.Core.Account: the users and groups of the cluster. grant_api.h has the methods about grants.
#pragma once

#include <vector>

#include "host/api/api_table.h"
#include "host/api/user/account_calls.h"

namespace vexa::services {

// For administrators, but for "password_set": users set their own password when they give the old one.
// Where the daemon takes its users from PAM, all of them are refused.
std::vector<webapi::ApiRow> AccountRows(const AccountServices& services);

}  // namespace vexa::services
