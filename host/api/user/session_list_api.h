// VEXA.Core.Session "list" and "end".
#pragma once

#include <vector>

#include "host/api/api_table.h"
#include "host/api/user/session_api.h"

namespace vexa::api {

std::vector<ApiRow> SessionListRows(const SessionServices& services);

}  // namespace vexa::api
