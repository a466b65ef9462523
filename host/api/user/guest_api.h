// The rows of the library's handlers.
#pragma once

#include <vector>

#include "host/api/api_table.h"

namespace vexa::api {

std::vector<ApiRow> GuestRows();

}  // namespace vexa::api
