// The description of this host's API, for people and tools.
#pragma once

#include <string>

#include "host/api/api_table.h"

namespace vexa::api {

// The table as an OpenAPI 3.0.3 document, JSON text.
std::string MakeOpenApi(const ApiTable& table);

}  // namespace vexa::api
