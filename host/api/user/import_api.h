// VEXA.Virtualization.Guest import: takes guests over from libvirt.
#pragma once

#include <memory>
#include <vector>

#include "host/api/api_table.h"
#include "host/store/store.h"

namespace vexa::api {

std::vector<ApiRow> ImportRows(std::shared_ptr<store::Store> store);

}  // namespace vexa::api
