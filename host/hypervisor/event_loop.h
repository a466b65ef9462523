// libvirt's event loop: keeps connections alive and delivers their events.
#pragma once

#include "host/hypervisor/failure.h"

namespace vexa::hypervisor {

// Starts the loop on a separate thread the first time; later calls return the first result. Must be called before any
// connection is opened: libvirt uses the loop that existed then for its monitors and events. Failures: kFailed.
// Threads: any.
Result<void, Failure> StartEventLoop();

}  // namespace vexa::hypervisor
