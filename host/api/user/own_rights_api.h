// VEXA.Core.Session rights: what the caller may do.
#pragma once

#include <memory>
#include <vector>

#include "host/api/api_table.h"
#include "host/store/store.h"

namespace vexa::api {

std::vector<ApiRow> OwnRightsRows(const std::shared_ptr<store::Store>& store);

}  // namespace vexa::api
