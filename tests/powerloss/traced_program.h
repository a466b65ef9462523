// Runs a program and its children under ptrace(2), and stops them at the system calls that can change files.
#pragma once

#include <sys/types.h>

#include <array>
#include <cstdint>

namespace vexa::powerloss {

struct SystemCall {
  long number = 0;
  std::array<std::uint64_t, 6> arguments{};
  std::uint64_t begun = 0;  // for the watcher
};

class CallWatcher {
 public:
  virtual ~CallWatcher() = default;
  // The thread is about to make the call. It may change what is kept of the call for End.
  virtual void Begin(pid_t thread, SystemCall& call) = 0;
  // The call has returned `result`, a negative errno(3) value for a failure. The thread goes on after this function.
  virtual void End(pid_t thread, const SystemCall& call, std::int64_t result) = 0;
};

// Returns the exit code of the program, or 128 and the number of the signal that ended it. SIGTERM and SIGINT are
// passed on to it. SIGUSR1 kills (-9) the processes that it has started, at a moment when the effects of all calls are
// known: of a call that a kill interrupts they are not. No traced process outlives the caller.
int RunTraced(char** argv, CallWatcher& watcher);

}  // namespace vexa::powerloss
