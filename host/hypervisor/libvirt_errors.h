// Classifies libvirt's errors. For host/hypervisor/*.cpp and its tests only.
#pragma once

#include <libvirt/virterror.h>

#include "host/hypervisor/outcome.h"

namespace vexa::hypervisor {

// The attempted operation: some of libvirt's codes mean different things in different operations.
enum class Operation { kOpen, kDefine, kUndefine, kStart, kStop, kRead };

// The meaning of an error; kFailed when it has none for callers. Pure.
Problem Translate(Operation operation, const virError& error);

// The failure of this thread's last libvirt call.
Failure LastFailure(Operation operation, std::string message);

}  // namespace vexa::hypervisor
