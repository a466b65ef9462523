// Removes the files of guests that other hosts deleted while this host, which owns their repository, was unreachable.
#pragma once

#include <map>
#include <string>

#include "host/guests/deletion/deletion.h"

namespace vexa::guests {

// See Deletion::RemoveLeftovers. Returns the obstacles by guest; obstacles for all guests are under "".
std::map<std::string, std::string> RemoveLeftovers(const DeletionOptions& options);

}  // namespace vexa::guests
