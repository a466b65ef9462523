// A libvirtd of the test's own: its guests and files are below the test's folder, and the machine's are not seen.
#pragma once

#include <sys/types.h>

#include <string>

#include "tests/support/qemu_guest.h"

namespace vexa::test {

// Why there can be none: WhyNoQemuGuests, or what is missing besides. Empty: nothing is.
std::string WhyNoPrivateLibvirtd();

// Runs as the user of the ground. It ends with the ground at the latest, its guests as well.
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

  // Guests run on while it is away, and are found again. Start answers when it takes connections.
  void Start();
  void Kill();  // as a crash would

 private:
  std::string Socket() const { return folder_ + "/libvirt/libvirt-sock"; }
  bool IsListening() const;

  std::string folder_;
  pid_t pid_ = 0;
};

}  // namespace vexa::test
