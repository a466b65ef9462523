// The parameters of the methods that edit a guest, from the table of its settings.
#pragma once

#include <vector>

#include "host/api/api_table.h"

namespace vexa::api {

// "guest_id", and everything that these callers may set.
std::vector<Parameter> EditParameters(Audience audience);

// With "apply", which says when a running guest is changed.
std::vector<Parameter> EditParametersWithApply(Audience audience);

}  // namespace vexa::api
