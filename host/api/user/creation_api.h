// The method with which administrators create guests.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "host/api/api_table.h"
#include "host/api/user/account_calls.h"

namespace vexa::api {

// VEXA.Virtualization.Guest create. It asks the host of the guest's repository to create it, chooses its host, and asks
// that one to start it. `is_stopping`: whether calls that wait for others must end now.
std::vector<ApiRow> CreationRows(const AccountServices& services, std::function<bool()> is_stopping);

}  // namespace vexa::api
