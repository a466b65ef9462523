// VEXA.Core.Account: which guests users and groups may use, and whether they are advanced.
#pragma once

#include <vector>

#include "host/api/api_table.h"
#include "host/api/user/account_calls.h"

namespace vexa::services {

// For administrators. Users and groups are those of the cluster, or with "system" the machine's own: for daemons that
// take their users from PAM, which refuse the others.
std::vector<webapi::ApiRow> GrantRows(const AccountServices& services);

}  // namespace vexa::services
