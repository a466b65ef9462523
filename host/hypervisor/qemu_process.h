// The QEMU processes on this machine. They are identified by their program and their command line, where libvirt passes
// the UUID of the guest as "-uuid"; unless `root` is empty, they must also name a file below `root`.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

#include "host/base/result.h"
#include "host/domain_xml/cpu_set.h"
#include "host/hypervisor/held_file.h"

namespace vexa::hypervisor {

// The user that libvirt runs the guest's process as, from the XML of the guest as it runs. A libvirt without rights of
// its own names none: it runs processes as itself, so this process's user is returned.
uid_t OwnerOfQemu(const char* running_xml);

// Kills the QEMU processes that run the guest `id` (a UUID in lower case), even ones that libvirt cannot reach.
// Processes of other users stay when this process may not kill them. Returns how many were killed, without waiting for
// them to end.
int KillQemuProcesses(const std::string& id, const std::string& root);

// The files that each of these processes of the user `owner` has open; see Hypervisor::FilesHeldBy. Anybody can start a
// program with any command line, so the processes of other users do not count. Errors: kNotFound (no such process),
// kDenied (one of them cannot be examined).
Result<std::vector<std::vector<HeldFile>>> FilesOfQemuProcesses(const std::string& id, const std::string& root,
                                                                uid_t owner);

// Lets the threads of these processes that are not virtual CPUs run on `cpus` only. Processes and threads that this
// process may not change stay as they are.
void MoveHelperThreads(const std::string& id, const std::string& root, uid_t owner, const domain_xml::CpuSet& cpus);

// The same for one process. Errors: kNotFound (it has ended), kDenied.
Result<std::vector<HeldFile>> FilesOfProcess(const std::string& pid);

}  // namespace vexa::hypervisor
