// QEMU's processes on this machine, for when libvirt cannot reach them.
#pragma once

#include <string>

namespace vexa::hypervisor {

// Kills the QEMUs that run the guest `id` (a UUID in lower case): by their command line, which libvirt gives the UUID
// as "-uuid", and, unless `root` is empty, only those that also name a file below `root`. Those of other users stay
// when this process may not kill them. Returns how many were killed; their ends are not waited for.
int KillQemusOf(const std::string& id, const std::string& root);

}  // namespace vexa::hypervisor
