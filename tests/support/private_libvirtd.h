// A libvirtd of the test's own: its guests and files are below the test's folder, and it does not see the machine's.
#pragma once

#include <sys/types.h>

#include <string>

#include "tests/support/qemu_guest.h"

namespace vexa::test {

// Why it is not possible: WhyNoQemuGuests, or what else is missing. Empty: it is possible.
std::string WhyNoPrivateLibvirtd();

// Runs as the user of the ground. It ends with the ground at the latest, together with its guests.
// Threads: one at a time.
class PrivateLibvirtd {
 public:
  // Starts it, and ends the test program when that fails.
  explicit PrivateLibvirtd(const QemuGround& ground);
  ~PrivateLibvirtd();
  PrivateLibvirtd(const PrivateLibvirtd&) = delete;
  PrivateLibvirtd& operator=(const PrivateLibvirtd&) = delete;

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
