// The rows of the library's handlers.
#pragma once

#include <vector>

#include "host/api/api_table.h"

namespace vexa::daemon {

std::vector<webapi::ApiRow> GuestRows();

}  // namespace vexa::daemon
