// For tests with a daemon that runs real guests through a libvirtd with networks, in a network namespace of the
// program.
#pragma once

#include <gtest/gtest.h>

#include <initializer_list>
#include <memory>
#include <string>

#include "tests/support/network_namespace.h"
#include "tests/support/process.h"
#include "tests/support/qemu_host.h"
#include "tests/support/system_libvirtd.h"

namespace vexa::test {

class SystemHostTest : public testing::Test {
 protected:
  // Skips the test if this machine lacks QEMU, libvirtd, one of `programs`, or the right to make namespaces.
  void SetUpHost(std::initializer_list<const char*> programs) {
    std::string why_not = NamespaceUnavailableReason();
    if (why_not.empty()) why_not = QemuUnavailableReason();
    if (why_not.empty() && !IsInstalled("/usr/sbin/libvirtd")) why_not = "there is no libvirtd";
    for (const char* program : programs) {
      if (why_not.empty() && !IsInstalled(program)) why_not = std::string("there is no ") + program;
    }
    if (!why_not.empty()) GTEST_SKIP() << SkipNotice(why_not);
    RunTool({"ip", "link", "set", "lo", "up"});
    QemuFiles files = HostFiles();
    files.user = QemuUser::kSame;
    environment_ = std::make_unique<QemuEnvironment>(files);
    libvirtd_ = std::make_unique<SystemLibvirtd>();
    QemuHostOptions options;
    options.hypervisor = kSystemUri;
    host_ = std::make_unique<QemuHost>(*environment_, options);
  }
  // Ends the guest and the daemon, and removes the guest from libvirt.
  void StopHost(const char* guest) {
    if (host_) host_->Power(guest, "poweroff");
    host_.reset();
    if (libvirtd_) libvirtd_->Forget(guest);
  }

  std::unique_ptr<QemuEnvironment> environment_;
  std::unique_ptr<SystemLibvirtd> libvirtd_;
  std::unique_ptr<QemuHost> host_;
};

}  // namespace vexa::test
