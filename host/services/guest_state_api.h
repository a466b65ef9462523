// VEXA.Virtualization.Guest: how guests are, for users.
#pragma once

#include <vector>

#include "host/webapi/api_table.h"

namespace vexa::services {

// "list", which waits for nobody, and "status", which asks every host.
std::vector<webapi::ApiRow> GuestStateRows();

}  // namespace vexa::services
