// Whether the kernel's virtualization works here.
#pragma once

#include <string>

namespace vexa::hypervisor {

// Runs one instruction in a machine of its own: `device` ("/dev/kvm") may be there and of no use, in a container or in
// a guest without nested virtualization. Threads: any.
bool KvmWorks(const std::string& device);

}  // namespace vexa::hypervisor
