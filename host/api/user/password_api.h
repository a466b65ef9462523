// VEXA.Core.Account "password_set".
#pragma once

#include "host/api/api_table.h"
#include "host/api/user/account_calls.h"

namespace vexa::api {

ApiRow PasswordRow(const AccountServices& services);

}  // namespace vexa::api
