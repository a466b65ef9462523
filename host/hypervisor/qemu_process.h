// The QEMU processes on this machine. They are identified by their command line, where libvirt passes the UUID of the
// guest as "-uuid"; unless `root` is empty, they must also name a file below `root`.
#pragma once

#include <string>
#include <vector>

#include "host/base/result.h"
#include "host/hypervisor/held_file.h"

namespace vexa::hypervisor {

// Kills the QEMU processes that run the guest `id` (a UUID in lower case), even ones that libvirt cannot reach.
// Processes of other users stay when this process may not kill them. Returns how many were killed, without waiting for
// them to end.
int KillQemuProcesses(const std::string& id, const std::string& root);

// The files that each of these processes has open; see Hypervisor::FilesHeldBy. Errors: kNotFound (no such process),
// kDenied (one of them belongs to another user).
Result<std::vector<std::vector<HeldFile>>> FilesOfQemuProcesses(const std::string& id, const std::string& root);

// The same for one process. Errors: kNotFound (it has ended), kDenied.
Result<std::vector<HeldFile>> FilesOfProcess(const std::string& pid);

}  // namespace vexa::hypervisor
