// What works on this machine, for `vexa setup`.
#pragma once

#include <string>
#include <vector>

namespace vexa::cli {

struct SetupFinding {
  std::string subject;  // "KVM"
  bool works = false;
  std::string text;  // what was found
  std::string help;  // what to do when it does not work
};

struct SetupMachine {
  std::string account;                        // of the service
  std::string qemu_account = "libvirt-qemu";  // as which libvirt runs QEMU
  std::string hypervisor;                     // as configured
  std::string images;                         // the folder for guests
  std::string kvm = "/dev/kvm";
};

// In the order in which they should be mended. Each check runs in a process of its own, as the account that it is
// about.
std::vector<SetupFinding> FindWhatWorks(const SetupMachine& machine);

// "  works    KVM: …" and "  MISSING  KVM: … (help)".
std::string ToLine(const SetupFinding& finding);

// Runs `body` in a child process as `account`, and returns what it returns; its outcome is a text after a letter, "+"
// for a success. "" when the child could not run.
std::string RunAs(const std::string& account, std::string (*body)(const SetupMachine& machine),
                  const SetupMachine& machine);

}  // namespace vexa::cli
