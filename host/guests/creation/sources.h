// The existing images that disks of a new guest are copied from. For host/guests/creation/*.cpp only.
#pragma once

#include <json/value.h>

#include <string>
#include <vector>

#include "host/base/refusal.h"
#include "host/base/result.h"
#include "host/guests/creation/image_copies.h"

namespace vexa::guests {

// Opens the images that elements of "vdisks_add" in `parameters` name in "from", and sets the sizes of these disks:
// that of the image, in whole MiB, unless a larger one is given. Refusals: 401 (a "from" that is not a path, a size
// below the image's), 932 (an image that cannot be copied).
Result<Sources, Refusal> OpenSources(const std::vector<std::string>& image_roots, Json::Value& parameters);

}  // namespace vexa::guests
