// Checks whether the kernel's virtualization works here.
#pragma once

#include <string>

namespace vexa::hypervisor {

// Whether one instruction runs in a new virtual machine. It is really run because in a container, or in a guest without
// nested virtualization, `device` ("/dev/kvm") may exist without working. Threads: any.
bool KvmWorks(const std::string& device);

}  // namespace vexa::hypervisor
