// Kills QEMU processes on this machine that libvirt cannot reach.
#pragma once

#include <string>

namespace vexa::hypervisor {

// Kills the QEMU processes that run the guest `id` (a UUID in lower case). They are identified by their command line,
// where libvirt passes the UUID as "-uuid"; unless `root` is empty, they must also name a file below `root`. Processes
// of other users stay when this process may not kill them. Returns how many were killed, without waiting for them to
// end.
int KillQemuProcesses(const std::string& id, const std::string& root);

}  // namespace vexa::hypervisor
