// Files of guests that were deleted while this host, whose repository they are in, could not be asked.
#pragma once

#include <map>
#include <string>

#include "host/guests/deletion/deletion.h"

namespace vexa::guests {

// See Deletion::RemoveLeftovers. What is in the way, by guest; under "" what is in the way of all.
std::map<std::string, std::string> RemoveLeftovers(const DeletionOptions& options);

}  // namespace vexa::guests
