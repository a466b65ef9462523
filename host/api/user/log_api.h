// VEXA.Virtualization.Log: the cluster log, for users.
#pragma once

#include <vector>

#include "host/api/api_table.h"

namespace vexa::api {

// "list": for administrators and advanced users, because the log names all guests.
std::vector<ApiRow> LogRows();

}  // namespace vexa::api
