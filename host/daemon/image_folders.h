// Image folders that this process cannot use, which people notice late: the unit of the service hides parts of the
// machine.
#pragma once

#include <string>
#include <vector>

namespace vexa::daemon {

// Writes a warning to the system log for each of `folders` (absolute paths) that cannot be seen or written here. A
// folder that does not exist is left alone when the folder that it would be in can be seen: it may be made later.
void WarnOfHiddenFolders(const std::vector<std::string>& folders);

}  // namespace vexa::daemon
