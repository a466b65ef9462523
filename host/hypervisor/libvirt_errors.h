// Classifies libvirt's errors. For host/hypervisor/*.cpp and its tests only.
#pragma once

#include <libvirt/virterror.h>

#include "host/hypervisor/failure.h"

namespace vexa::hypervisor {

// The attempted operation: some of libvirt's codes mean different things in different operations.
enum class Operation {
  kOpen,
  kDefine,
  kUndefine,
  kStart,
  kStop,
  kSuspend,  // also resuming and saving; an invalid operation need not mean that the guest does not run
  kRead,
};

// The kind of an error; kFailed for errors that callers cannot act on. Pure.
FailureKind ClassifyError(Operation operation, const virError& error);

// Whether a start failed because libvirt has no control group for processors. Pure.
bool LacksCpuGroup(const virError& error);

// The failure of this thread's last libvirt call.
Failure LastFailure(Operation operation, std::string message);

}  // namespace vexa::hypervisor
