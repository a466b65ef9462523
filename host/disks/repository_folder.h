// The folder of a repository, below an image folder.
#pragma once

#include <string>

#include "host/base/result.h"

namespace vexa::disks {

// Creates the folder when it is missing; its parent must exist. Its mode is 0711 whatever the umask: libvirt gives a
// disk to the user that QEMU runs as, who has to reach it; other users can neither list the folder nor read the files.
// An existing folder of this process's user with mode 0700, as older versions made it, gets the same mode; any other
// one stays as it is. Errors: kInternal, with the path and the system's reason.
Status MakeRepositoryFolder(const std::string& path);

}  // namespace vexa::disks
