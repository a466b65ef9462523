#include "host/hypervisor/event_loop.h"

#include <pthread.h>
#include <thread>

#include "host/base/background_thread.h"
#include "host/hypervisor/handles.h"
#include "host/hypervisor/libvirt_errors.h"

namespace vexa::hypervisor {
namespace {

void Run() {
  // A failed iteration, perhaps for lack of file descriptors, must not end the delivery of events; repeated failures
  // must not keep a processor busy.
  constexpr std::chrono::milliseconds kPauseAfterFailure{100};
  for (;;) {
    if (virEventRunDefaultImpl() < 0) std::this_thread::sleep_for(kPauseAfterFailure);
  }
}

Result<void, Failure> Start() {
  // Errors are returned as results; libvirt would also print them to stderr.
  virSetErrorFunc(nullptr, [](void*, virErrorPtr) {});
  if (virInitialize() != 0 || virEventRegisterDefaultImpl() != 0) {
    return LastFailure(Operation::kOpen, "Cannot use libvirt");
  }
  // The thread ends with the process: connections may still need it when main has returned.
  StartThreadBlockingSignals(Run).detach();
  return {};
}

}  // namespace

Result<void, Failure> StartEventLoop() {
  static const Result<void, Failure> started = Start();
  return started;
}

}  // namespace vexa::hypervisor
