// VEXA.Virtualization.Guest "recover" and VEXA.Virtualization.Host "forget": what administrators can do about a host
// that is gone.
#pragma once

#include <memory>
#include <vector>

#include "host/api/api_table.h"
#include "host/store/store.h"

namespace vexa::api {

std::vector<ApiRow> RecoveryRows(const std::shared_ptr<store::Store>& store);

}  // namespace vexa::api
