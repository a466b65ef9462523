// libvirt's event loop: keeps connections alive and delivers their events.
#pragma once

#include "host/hypervisor/outcome.h"

namespace vexa::hypervisor {

// Starts the loop on a thread of its own the first time; later calls return the first result. Must be called before any
// connection is opened: libvirt uses the loop that existed then for its monitors and events. Failures: kFailed.
// Threads: any.
Outcome<void> StartEventLoop();

}  // namespace vexa::hypervisor
