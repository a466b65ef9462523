// CPU weights with a libvirtd that has control groups, as a system's has: what the kernel says of the guest's group.
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <memory>

#include "json/readers.h"
#include "tests/support/network_namespace.h"
#include "tests/support/qemu_host.h"
#include "tests/support/system_libvirtd.h"

namespace vexa::test {
namespace {

namespace fs = std::filesystem;

constexpr char kGuest[] = "11111111-2222-4333-8444-000000000013";
constexpr char kControlGroups[] = "/sys/fs/cgroup";

// In this program's mounts: the controllers "cpu" and "memory" of version 1, if the kernel still has them.
std::string why_no_groups;
bool MountController(const char* name) {
  const std::string folder = std::string(kControlGroups) + "/" + name;
  return ::mkdir(folder.c_str(), 0755) == 0 && ::mount("cgroup", folder.c_str(), "cgroup", 0, name) == 0;
}
void MountControlGroups() {
  if (!NamespaceUnavailableReason().empty()) return;
  if (::mount("vexa-test", kControlGroups, "tmpfs", 0, "mode=0755") != 0 || !MountController("cpu") ||
      !MountController("memory")) {
    why_no_groups = std::string("the kernel gives no control groups of version 1: ") + std::strerror(errno);
  }
}

class CpuWeight : public testing::Test {
 protected:
  void SetUp() override {
    const std::string why_not = UnavailableReason();
    if (!why_not.empty()) GTEST_SKIP() << SkipNotice(why_not);
    QemuFiles files = HostFiles();
    files.user = QemuUser::kSame;
    environment_ = std::make_unique<QemuEnvironment>(files);
  }
  void TearDown() override {
    if (HasFailure() && host_) std::fprintf(stderr, "%s\n%s\n", host_->Log().c_str(), libvirtd_->Log().c_str());
    if (host_) host_->Power(kGuest, "poweroff");
    host_.reset();
    if (libvirtd_) libvirtd_->Forget(kGuest);
    libvirtd_.reset();
    environment_.reset();
    std::error_code ignored;
    for (const char* controller : {"/cpu", "/memory"}) {
      fs::remove(std::string(kControlGroups) + controller + "/machine", ignored);
    }
  }
  static std::string UnavailableReason() {
    std::string why_not = NamespaceUnavailableReason();
    if (why_not.empty()) why_not = QemuUnavailableReason();
    if (why_not.empty()) why_not = why_no_groups;
    if (!why_not.empty()) return why_not;
    return IsInstalled("/usr/sbin/libvirtd") ? "" : "there is no libvirtd: install libvirt-daemon";
  }
  void StartHost(const std::string& controllers, int weight) {
    libvirtd_ = std::make_unique<SystemLibvirtd>(controllers);
    QemuHostOptions options;
    options.hypervisor = kSystemUri;
    host_ = std::make_unique<QemuHost>(*environment_, options);
    HostGuest guest;
    guest.id = kGuest;
    guest.name = "weighed";
    guest.disks = 0;
    host_->PutGuest(guest);
    Json::Value record = host_->Record("guest", kGuest);
    record["cpu_weight"] = weight;
    host_->Put("guest", kGuest, record);
    host_->Start();
  }
  // The "cpu.shares" of the guest's group; empty when there is no such group.
  static std::string Shares() {
    std::error_code ignored;
    for (const auto& entry : fs::recursive_directory_iterator(kControlGroups, ignored)) {
      const std::string folder = entry.path().filename().string();
      if (folder.find("weighed") == std::string::npos || !fs::exists(entry.path() / "cpu.shares")) continue;
      std::string shares;
      std::ifstream(entry.path() / "cpu.shares") >> shares;
      return shares;
    }
    return "";
  }

  std::unique_ptr<QemuEnvironment> environment_;
  std::unique_ptr<SystemLibvirtd> libvirtd_;
  std::unique_ptr<QemuHost> host_;
};

TEST_F(CpuWeight, Record_WithControlGroups_IsTheKernelsWeight) {
  StartHost("\"cpu\"", 512);
  ASSERT_EQ(host_->Power(kGuest, "poweron"), 0);
  EXPECT_EQ(Shares(), "512");
  EXPECT_EQ(host_->Log().find("runs without its CPU weight"), std::string::npos);
  ASSERT_EQ(host_->Power(kGuest, "poweroff"), 0);
  Json::Value edit(Json::objectValue);
  edit["cpu_weight"] = 262144;
  ASSERT_EQ(host_->Set(kGuest, edit), 0);
  ASSERT_EQ(host_->Power(kGuest, "poweron"), 0);
  EXPECT_EQ(Shares(), "262144");
}

// libvirt starts the guest and says nothing.
TEST_F(CpuWeight, Record_LibvirtdWithoutController_IsReported) {
  StartHost("", 512);
  ASSERT_EQ(host_->Power(kGuest, "poweron"), 0);
  EXPECT_EQ(Shares(), "");
  EXPECT_NE(host_->Log().find("The guest " + std::string(kGuest) + " runs without its CPU weight of 512: "),
            std::string::npos);
  const std::string log = host_->Vexa({"log", "--all", "--json", "--socket", host_->Socket()});
  EXPECT_NE(log.find("The virtual machine [weighed] runs without its CPU weight of 512: "), std::string::npos) << log;
}

// With other control groups but none for processors, libvirt refuses every guest that has a weight.
TEST_F(CpuWeight, Guests_LibvirtdWithoutControllerForProcessors_RunWithoutWeight) {
  StartHost("\"memory\"", 512);
  ASSERT_EQ(host_->Power(kGuest, "poweron"), 0);
  EXPECT_EQ(Shares(), "");
  const std::string line =
      "Guests run without CPU weights until libvirt has the control group 'cpu' (cgroup_controllers in "
      "/etc/libvirt/qemu.conf): ";
  const std::string log = host_->Log();
  EXPECT_NE(log.find(line), std::string::npos) << log;
  EXPECT_NE(log.find("CPU tuning is not available"), std::string::npos) << log;
  EXPECT_NE(log.find("The guest " + std::string(kGuest) + " runs without its CPU weight of 512: "), std::string::npos)
      << log;
  // From now on the first attempt succeeds.
  ASSERT_EQ(host_->Power(kGuest, "poweroff"), 0);
  ASSERT_EQ(host_->Power(kGuest, "poweron"), 0);
  const std::string later = host_->Log();
  EXPECT_EQ(later.find(line, later.find(line) + 1), std::string::npos) << later;
}

}  // namespace
}  // namespace vexa::test

int main(int argc, char** argv) {
  vexa::test::EnterNetworkNamespace(argv);
  vexa::test::MountControlGroups();
  testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
