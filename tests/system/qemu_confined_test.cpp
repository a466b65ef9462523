// Guests on QEMU whose host has only the rights of its unit. An embedded QEMU inherits them.
#include "tests/support/qemu_host_test.h"

namespace vexa::test {
namespace {

constexpr char kGuest[] = "11111111-2222-4333-8444-000000000005";
constexpr const char* kUnit = VEXA_SOURCE_DIR "/packaging/vexad.service";
constexpr const char* kEmbedDropIn = VEXA_SOURCE_DIR "/packaging/vexad-embed.conf";

// Copies: a program that was opened for the test's user can be executed by that descriptor once, and the launcher
// executes a second one.
QemuFiles FilesForLauncher() {
  QemuFiles files = HostFiles();
  files.libraries.insert(files.libraries.end(), {kUnit, kEmbedDropIn, CONFINED_PROGRAM, VEXAD_PROGRAM});
  return files;
}

// The command that runs the daemon under these units, all of them copies.
std::vector<std::string> ConfinedVexad(const QemuEnvironment& environment, const std::vector<std::string>& units) {
  const std::string folder = environment.LibraryFolder() + "/";
  std::vector<std::string> command{folder + "confined"};
  for (const std::string& unit : units) command.push_back(folder + std::filesystem::path(unit).filename().string());
  command.insert(command.end(), {"--", folder + "vexad"});
  return command;
}

// How many filters of system calls a process has.
int FiltersOf(int pid) {
  std::ifstream status("/proc/" + std::to_string(pid) + "/status");
  for (std::string line; std::getline(status, line);) {
    if (line.starts_with("Seccomp_filters:")) return std::stoi(line.substr(line.find('\t')));
  }
  return -1;
}

// The guest runs. Ends it by the power button, and starts it again to power it off.
void EndGuestInBothWays(const QemuHost& host) {
  // The guest's agent answers, so it has booted: before that it does not notice the power button.
  EXPECT_TRUE(Await([&] { return host.Addresses(kGuest).find(kGuestAddress) != std::string::npos; }));
  EXPECT_EQ(host.Power(kGuest, "shutdown"), 0) << host.Log();
  EXPECT_TRUE(host.AwaitOff(kGuest)) << host.Log();
  EXPECT_EQ(host.ChangedDisks(kGuest, 1), "");
  ASSERT_EQ(host.Power(kGuest, "poweron"), 0) << host.Log();
  EXPECT_EQ(host.Power(kGuest, "poweroff"), 0) << host.Log();
  EXPECT_TRUE(host.AwaitOff(kGuest)) << host.Log();
}

class QemuConfined : public EmbeddedHostTest {
 protected:
  void SetUp() override {
    const std::string why_not = UnavailableReason();
    if (!why_not.empty()) GTEST_SKIP() << SkipNotice(why_not);
    environment_ = std::make_unique<QemuEnvironment>(FilesForLauncher());
    QemuHostOptions options;
    options.command = ConfinedVexad(*environment_, {kUnit, kEmbedDropIn});
    host_ = std::make_unique<QemuHost>(*environment_, options);
  }
};

TEST_F(QemuConfined, EmbeddedGuest_StartsIsAdoptedAndEnds) {
  StartHostWith(kGuest, "confined");
  EXPECT_GT(FiltersOf(host_->pid()), 0) << host_->Log();
  ASSERT_EQ(host_->Power(kGuest, "poweron"), 0) << host_->Log();
  ASSERT_TRUE(host_->AwaitState(kGuest, "guest_running")) << host_->Log();
  const std::vector<int> qemus = QemusOf(environment_->folder(), kGuest);
  ASSERT_EQ(qemus.size(), 1u);
  EXPECT_GE(FiltersOf(qemus[0]), FiltersOf(host_->pid())) << "QEMU has the daemon's filters";
  host_->Restart();
  EXPECT_EQ(host_->Qemus(kGuest), 1);
  EndGuestInBothWays(*host_);
  EXPECT_TRUE(host_->Stop(kGuestTimeout).has_value());
}

class QemuConfinedBesideLibvirtd : public LibvirtHostTest {
 protected:
  void SetUp() override {
    const std::string why_not = UnavailableReason();
    if (!why_not.empty()) GTEST_SKIP() << SkipNotice(why_not);
    environment_ = std::make_unique<QemuEnvironment>(FilesForLauncher());
    libvirtd_ = std::make_unique<PrivateLibvirtd>(*environment_);
    QemuHostOptions options;
    options.hypervisor = libvirtd_->uri();
    options.command = ConfinedVexad(*environment_, {kUnit});
    host_ = std::make_unique<QemuHost>(*environment_, options);
  }
};

TEST_F(QemuConfinedBesideLibvirtd, Guest_StartsAndEnds) {
  StartHostWith(kGuest, "confined");
  EXPECT_GT(FiltersOf(host_->pid()), 0) << host_->Log();
  ASSERT_EQ(host_->Power(kGuest, "poweron"), 0) << host_->Log();
  ASSERT_TRUE(host_->AwaitState(kGuest, "guest_running")) << host_->Log();
  EndGuestInBothWays(*host_);
  EXPECT_TRUE(host_->Stop(kGuestTimeout).has_value());
}

}  // namespace
}  // namespace vexa::test
