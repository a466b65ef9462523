// The parameters of the methods that edit a guest, from the table of its settings.
#pragma once

#include <vector>

#include "host/api/api_table.h"

namespace vexa::api {

// "guest_id", and everything that these callers may set.
std::vector<Parameter> EditParameters(Audience audience);

}  // namespace vexa::api
