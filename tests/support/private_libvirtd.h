// A libvirtd of the test's own: its guests and files are below the test's folder, and it does not see the machine's.
#pragma once

#include <sys/types.h>

#include <string>

#include "host/base/not_copyable.h"
#include "tests/support/qemu_guest.h"

namespace vexa::test {

// Why it is not possible: QemuUnavailableReason, or what else is missing. Empty: it is possible.
std::string LibvirtdUnavailableReason();

// Runs as the user of the environment. It ends with the environment at the latest, together with its guests.
// Threads: one at a time.
class PrivateLibvirtd : private NotCopyable {
 public:
  // Starts it, and ends the test program when that fails.
  explicit PrivateLibvirtd(const QemuEnvironment& environment);
  ~PrivateLibvirtd();

  // For virConnectOpen, and as a host's hypervisor.
  std::string uri() const { return "qemu:///session?socket=" + Socket(); }
  std::string Log() const;

  // Guests keep running while it is away, and are found again. Start returns when it accepts connections.
  void Start();
  void Kill();  // like a crash

 private:
  std::string Socket() const { return folder_ + "/libvirt/libvirt-sock"; }
  bool IsListening() const;

  std::string folder_;
  pid_t pid_ = 0;
};

}  // namespace vexa::test
