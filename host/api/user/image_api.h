// VEXA.Virtualization.Image: the ISO images for the drives of guests.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "host/api/api_table.h"
#include "host/storage/uploads.h"
#include "host/store/store.h"

namespace vexa::api {

// "list", "add", "rename", "remove". Files must be below one of `image_roots`.
std::vector<ApiRow> ImageRows(const std::shared_ptr<store::Store>& store, std::vector<std::string> image_roots,
                              const std::shared_ptr<storage::Uploads>& uploads);

}  // namespace vexa::api
