// Checks whether the kernel's virtualization works here.
#pragma once

#include <string>

namespace vexa::hypervisor {

// Runs one instruction in a machine of its own: in a container, or in a guest without nested virtualization, `device`
// ("/dev/kvm") may exist without working. Threads: any.
bool KvmWorks(const std::string& device);

}  // namespace vexa::hypervisor
