#include "cli/setup_report.h"

#include "cli/printable.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <pwd.h>
#include <sys/statvfs.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <filesystem>
#include <system_error>

#include "host/base/become_account.h"
#include "host/base/byte_text.h"
#include "host/base/descriptor.h"
#include "host/base/write_all.h"
#include "host/hypervisor/kvm_probe.h"
#include "host/hypervisor/libvirt_probe.h"

namespace vexa::cli {
namespace {

namespace fs = std::filesystem;

constexpr std::chrono::seconds kTimeout{10};
constexpr std::uint64_t kLittleSpace = std::uint64_t{10} << 30;
constexpr const char* kNoMachine = "a virtual machine cannot be made with it";
constexpr const char* kSwitchKvmOn =
    "guests are emulated until then, many times slower: switch virtualization on in the firmware (or in the host of "
    "this virtual machine), and run: modprobe kvm_intel || modprobe kvm_amd";

// Bodies of RunAs: "+" and a text for a success, "-" and the reason for a failure.

std::string TryKvm(const SetupMachine& machine) {
  if (::access(machine.kvm.c_str(), R_OK | W_OK) != 0) return "-" + std::generic_category().message(errno);
  return hypervisor::KvmWorks(machine.kvm) ? "+" : fmt::format("-{}", kNoMachine);
}

std::string TryLibvirt(const SetupMachine& machine) {
  const auto report = hypervisor::ProbeLibvirt(machine.hypervisor, kTimeout);
  if (!report) return "-" + report.error().ToString();
  return fmt::format("+{}, libvirt {}", report->hypervisor, report->libvirt);
}

std::string TryFolder(const SetupMachine& machine) {
  if (::access(machine.images.c_str(), R_OK | W_OK | X_OK) == 0) return "+";
  return "-" + std::generic_category().message(errno);
}

std::string TryEntering(const SetupMachine& machine) {
  return ::access(machine.images.c_str(), X_OK) == 0 ? "+" : "-" + std::generic_category().message(errno);
}

bool Worked(const std::string& outcome) { return outcome.starts_with('+'); }
std::string TextOf(const std::string& outcome) { return outcome.empty() ? "it was not tried" : outcome.substr(1); }

SetupFinding FindKvm(const SetupMachine& machine) {
  if (::access(machine.kvm.c_str(), F_OK) != 0) {
    return {"KVM", false, fmt::format("{} does not exist", machine.kvm), kSwitchKvmOn};
  }
  if (!::getpwnam(machine.qemu_account.c_str())) {
    return {"KVM", false, fmt::format("there is no account '{}' to run QEMU", machine.qemu_account),
            "run: apt-get install libvirt-daemon-system qemu-system-x86"};
  }
  const std::string outcome = RunAs(machine.qemu_account, TryKvm, machine);
  if (Worked(outcome)) return {"KVM", true, fmt::format("'{}' can use {}", machine.qemu_account, machine.kvm), ""};
  const std::string text = fmt::format("'{}' cannot use {}: {}", machine.qemu_account, machine.kvm, TextOf(outcome));
  if (TextOf(outcome) == kNoMachine) return {"KVM", false, text, kSwitchKvmOn};
  return {
      "KVM", false, text,
      fmt::format("guests are emulated until then, many times slower; run: usermod -aG kvm {}", machine.qemu_account)};
}

SetupFinding FindLibvirt(const SetupMachine& machine) {
  if (machine.hypervisor == "test") {
    return {"Hypervisor", false, "guests are only simulated here: nothing runs",
            "run: vexa setup --hypervisor qemu:///system"};
  }
  if (machine.hypervisor.find(':') == std::string::npos) {
    return {"Hypervisor", true, fmt::format("'{}', as configured", machine.hypervisor), ""};
  }
  const std::string outcome = RunAs(machine.account, TryLibvirt, machine);
  if (Worked(outcome)) return {"libvirt", true, TextOf(outcome), ""};
  return {"libvirt", false,
          fmt::format("'{}' cannot use '{}': {}", machine.account, machine.hypervisor, TextOf(outcome)),
          fmt::format("run: apt-get install libvirt-daemon-system; usermod -aG libvirt {}; systemctl start libvirtd",
                      machine.account)};
}

SetupFinding FindBridges() {
  std::string names;
  std::error_code failed;
  fs::directory_iterator entry("/sys/class/net", failed);
  for (const fs::directory_iterator end; !failed && entry != end; entry.increment(failed)) {
    std::error_code missing;
    if (!fs::exists(entry->path() / "bridge", missing)) continue;
    names += (names.empty() ? "" : ", ") + entry->path().filename().string();
  }
  if (!names.empty()) return {"Bridges", true, names, ""};
  return {"Bridges", false, "this machine has none; guests can be in networks of libvirt",
          "'vexa network add --help' shows how to make one"};
}

SetupFinding FindFolder(const SetupMachine& machine) {
  const std::string outcome = RunAs(machine.account, TryFolder, machine);
  if (!Worked(outcome)) {
    return {"Folder for guests", false,
            fmt::format("'{}' cannot use {}: {}", machine.account, machine.images, TextOf(outcome)),
            fmt::format("run: chown {}: '{}'", machine.account, machine.images)};
  }
  if (::getpwnam(machine.qemu_account.c_str())) {
    const std::string entered = RunAs(machine.qemu_account, TryEntering, machine);
    if (!Worked(entered)) {
      return {"Folder for guests", false,
              fmt::format("'{}' cannot enter {}: {}", machine.qemu_account, machine.images, TextOf(entered)),
              "run chmod o+x for it and for the folders above it, or name another one with --images"};
    }
  }
  return {"Folder for guests", true, machine.images, ""};
}

SetupFinding FindSpace(const SetupMachine& machine) {
  struct statvfs space {};
  if (::statvfs(machine.images.c_str(), &space) != 0) {
    return {"Free space", false, std::generic_category().message(errno), "name another folder with --images"};
  }
  const std::uint64_t free = std::uint64_t{space.f_bavail} * space.f_frsize;
  const std::string text = fmt::format("{:.1f} GiB in {}", static_cast<double>(free) / (1 << 30), machine.images);
  if (free >= kLittleSpace) return {"Free space", true, text, ""};
  return {"Free space", false, text, "that is little for guests' disks: name a folder on a larger disk with --images"};
}

}  // namespace

std::string RunAs(const std::string& account, std::string (*body)(const SetupMachine& machine),
                  const SetupMachine& machine) {
  int ends[2];
  if (::pipe2(ends, O_CLOEXEC) != 0) return "";
  const Descriptor input(ends[0]);
  Descriptor output(ends[1]);
  const pid_t child = ::fork();
  if (child < 0) return "";
  if (child == 0) {
    const Status became = BecomeAccount(account);
    const std::string outcome = became ? body(machine) : "-" + became.error().ToString();
    (void)WriteAll(output.get(), outcome);
    ::_exit(0);
  }
  output = Descriptor();
  std::string outcome;
  char buffer[4096];
  for (ssize_t size = 0; (size = ::read(input.get(), buffer, sizeof buffer)) > 0;) {
    outcome.append(buffer, static_cast<std::size_t>(size));
  }
  int ignored = 0;
  ::waitpid(child, &ignored, 0);
  return outcome;
}

std::vector<SetupFinding> FindWhatWorks(const SetupMachine& machine) {
  std::vector<SetupFinding> findings{FindLibvirt(machine), FindFolder(machine), FindSpace(machine), FindBridges()};
  if (machine.hypervisor.starts_with("qemu") || machine.hypervisor == "embed") {
    findings.insert(findings.begin(), FindKvm(machine));
  }
  return findings;
}

std::string ToLine(const SetupFinding& finding) {
  const std::string line =
      fmt::format("  {}  {}: {}", finding.works ? "works  " : "MISSING", finding.subject, Printable(finding.text));
  return finding.help.empty() ? line : fmt::format("{}\n           {}", line, finding.help);
}

}  // namespace vexa::cli
