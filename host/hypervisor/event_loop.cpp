#include "host/hypervisor/event_loop.h"

#include <pthread.h>
#include <thread>

#include "host/base/background_thread.h"
#include "host/hypervisor/handles.h"
#include "host/hypervisor/libvirt_errors.h"

namespace vexa::hypervisor {
namespace {

void Run() {
  // One failed round, for lack of descriptors perhaps, must not end the host's events, and many must not use up a
  // processor.
  constexpr std::chrono::milliseconds kPauseAfterFailure{100};
  for (;;) {
    if (virEventRunDefaultImpl() < 0) std::this_thread::sleep_for(kPauseAfterFailure);
  }
}

Outcome<void> Start() {
  // Errors are returned as results; libvirt would also print them to stderr.
  virSetErrorFunc(nullptr, [](void*, virErrorPtr) {});
  if (virInitialize() != 0 || virEventRegisterDefaultImpl() != 0) {
    return LastFailure(Operation::kOpen, "Cannot use libvirt");
  }
  // It ends with the process: other parts' connections may still need it when main has returned.
  StartWithoutSignals(Run).detach();
  return {};
}

}  // namespace

Outcome<void> StartEventLoop() {
  static const Outcome<void> started = Start();
  return started;
}

}  // namespace vexa::hypervisor
