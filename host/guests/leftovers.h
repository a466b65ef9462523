// Files of guests that were deleted while this host, whose repository they are in, could not be asked.
#pragma once

#include "host/guests/deletion.h"

namespace vexa::guests {

// See Deletion::RemoveLeftovers.
void RemoveLeftovers(const DeletionOptions& options);

}  // namespace vexa::guests
