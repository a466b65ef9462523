// libvirt's event loop: keeps connections alive and delivers their events.
#pragma once

#include "host/hypervisor/outcome.h"

namespace vexa::hypervisor {

// Starts the loop on a thread of its own, the first time; later calls give what the first gave. To be called before any
// connection is opened: libvirt has its monitors and events served by the loop that was there then.
// Failures: kFailed. Threads: any.
Outcome<void> StartEventLoop();

}  // namespace vexa::hypervisor
