// Whether libvirt can be used, for checks that come before a hypervisor is opened.
#pragma once

#include <chrono>
#include <string>

#include "host/hypervisor/failure.h"

namespace vexa::hypervisor {

struct LibvirtReport {
  std::string hypervisor;  // "QEMU 7.2.0", "TEST 2.0.0"
  std::string libvirt;     // "9.0.0"
};

// Opens and closes a connection on a thread of its own, without starting a daemon of libvirt. When libvirt does not
// answer in time, that thread is left behind: the process should end without waiting for it. For the URIs of
// HypervisorOptions except "test" and "embed". Failures: as Hypervisor::Open; kDisconnected also for no answer.
Result<LibvirtReport, Failure> ProbeLibvirt(const std::string& uri, std::chrono::milliseconds timeout);

}  // namespace vexa::hypervisor
