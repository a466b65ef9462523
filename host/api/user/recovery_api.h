// VEXA.Virtualization.Guest "recover" and VEXA.Virtualization.Host "forget": what administrators can do about a host
// that is gone.
#pragma once

#include <memory>
#include <vector>

#include "host/api/api_table.h"
#include "host/store/store.h"

namespace vexa::services {

std::vector<webapi::ApiRow> RecoveryRows(std::shared_ptr<store::Store> store);

}  // namespace vexa::services
