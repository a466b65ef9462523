// VEXA.Virtualization.Image: the ISO images that drives of guests can hold.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "host/api/api_table.h"
#include "host/store/store.h"

namespace vexa::services {

// "list", "add", "remove". Files must be below one of `image_roots`.
std::vector<webapi::ApiRow> ImageRows(std::shared_ptr<store::Store> store, std::vector<std::string> image_roots);

}  // namespace vexa::services
