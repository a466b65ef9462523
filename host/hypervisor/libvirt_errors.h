// libvirt's errors by meaning. For host/hypervisor/*.cpp and its tests only.
#pragma once

#include <libvirt/virterror.h>

#include "host/hypervisor/outcome.h"

namespace vexa::hypervisor {

// What was tried: some of libvirt's codes mean one thing here and another there.
enum class Operation { kOpen, kDefine, kUndefine, kStart, kStop, kRead };

// The meaning of an error, kFailed when it has none for callers. Pure.
Problem Translate(Operation operation, const virError& error);

// The failure of the libvirt call that this thread made last.
Failure LastFailure(Operation operation, std::string message);

}  // namespace vexa::hypervisor
