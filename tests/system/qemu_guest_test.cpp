// Real guests on QEMU: what only a guest that runs can show.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <functional>
#include <thread>

#include "host/hypervisor/hypervisor.h"
#include "tests/support/guest_events.h"
#include "tests/support/matchers.h"
#include "tests/support/qemu_guest.h"

namespace vexa::test {
namespace {

using hypervisor::Failure;
using hypervisor::GuestState;
using hypervisor::Hypervisor;

constexpr const char* kAdopted = "11111111-2222-4333-8444-000000000001";
constexpr const char* kGuest = "11111111-2222-4333-8444-000000000002";
constexpr auto kTimeout = std::chrono::seconds(120);

template <class T>
std::string Why(const Result<T, Failure>& outcome) {
  return outcome.ok() ? "" : outcome.error().ToString();
}

hypervisor::HypervisorOptions EmbedOptions(const QemuEnvironment& environment) {
  hypervisor::HypervisorOptions options;
  options.mode = "embed";
  options.root = environment.root();
  return options;
}

Result<std::string, Failure> DefineFrom(Hypervisor& hypervisor, const domain_xml::GuestRecords& records) {
  domain_xml::BuildOptions options;
  options.domain_type = hypervisor.DomainType();
  options.cpu_shares = domain_xml::CpuShares::kOmitted;
  options.libvirt_networks = {"lab"};
  const Result<std::string> xml = BuildDomainXml(records, options);
  if (!xml) return hypervisor::Failure(hypervisor::FailureKind::kInvalid, xml.error().ToString());
  return hypervisor.Define(*xml);
}

// A host that starts a guest, says how that went, and hangs until it is killed.
[[noreturn]] void RunHost(const QemuEnvironment& environment, int answer) {
  std::string said = "ok";
  Result<std::unique_ptr<Hypervisor>, Failure> opened = Hypervisor::Open(EmbedOptions(environment));
  if (opened) {
    const auto records = QemuGuestRecords(kAdopted, "adopted", environment.Image(GuestImage::kWithAgent));
    const Result<std::string, Failure> id = DefineFrom(**opened, records);
    const Result<void, Failure> started = id ? (*opened)->Start(*id) : Result<void, Failure>(id.error());
    if (!started) said = Why(started);
  } else {
    said = Why(opened);
  }
  if (::write(answer, said.data(), said.size()) < 0) ::_exit(1);
  ::close(answer);
  for (;;) ::pause();
}

std::string ReadAll(int fd) {
  std::string text;
  char buffer[512];
  for (ssize_t count = 0; (count = ::read(fd, buffer, sizeof buffer)) > 0;) {
    text.append(buffer, static_cast<std::size_t>(count));
  }
  return text;
}

class QemuGuest : public testing::Test {
 protected:
  // Before there are threads: a host runs in a process of its own, starts a guest and is killed.
  static void SetUpTestSuite() {
    why_not_ = QemuUnavailableReason();
    if (!why_not_.empty()) return;
    environment_ = std::make_unique<QemuEnvironment>();
    int answer[2];
    ASSERT_EQ(::pipe(answer), 0);
    const pid_t host = ::fork();
    ASSERT_GE(host, 0);
    if (host == 0) {
      ::close(answer[0]);
      environment_->ReleaseInChild();
      RunHost(*environment_, answer[1]);
    }
    ::close(answer[1]);
    first_host_said_ = ReadAll(answer[0]);
    ::close(answer[0]);
    ::kill(host, SIGKILL);
    ::waitpid(host, nullptr, 0);
  }
  static void TearDownTestSuite() { environment_.reset(); }

  void SetUp() override {
    if (!why_not_.empty()) GTEST_SKIP() << SkipNotice(why_not_);
    hypervisor::HypervisorOptions options = EmbedOptions(*environment_);
    events_.Listen(options);
    Result<std::unique_ptr<Hypervisor>, Failure> opened = Hypervisor::Open(std::move(options));
    ASSERT_TRUE(opened.ok()) << Why(opened);
    hypervisor_ = std::move(*opened);
  }
  void TearDown() override {
    if (!hypervisor_ || hypervisor_->StateOf(kGuest).ok() == false) return;
    EXPECT_THAT(OutcomeName(hypervisor_->PowerOff(kGuest)), testing::AnyOf("ok", "not_running"));
    EXPECT_EQ(OutcomeName(hypervisor_->Undefine(kGuest, hypervisor::UndefineScope::kDefinition)), "ok");
  }

  void Define(const domain_xml::GuestRecords& records) {
    const Result<std::string, Failure> defined = DefineFrom(*hypervisor_, records);
    ASSERT_TRUE(defined.ok()) << Why(defined);
  }
  void ExpectStartFails(const domain_xml::GuestRecords& records, const char* word) {
    Define(records);
    const Result<void, Failure> started = hypervisor_->Start(kGuest);
    EXPECT_EQ(OutcomeName(started), word) << Why(started);
  }
  GuestState State(const char* id) {
    const Result<GuestState, Failure> state = hypervisor_->StateOf(id);
    EXPECT_TRUE(state.ok()) << Why(state);
    return state.ok() ? *state : GuestState::kGone;
  }
  bool HasAgent(const char* id) {
    const Result<bool, Failure> agent = hypervisor_->HasAgent(id);
    EXPECT_TRUE(agent.ok()) << Why(agent);
    return agent.ok() && *agent;
  }
  std::vector<std::string> Addresses(const char* id) {
    const Result<std::vector<std::string>, Failure> addresses = hypervisor_->AddressesOf(id);
    EXPECT_TRUE(addresses.ok()) << Why(addresses);
    return addresses.ok() ? *addresses : std::vector<std::string>{};
  }
  static bool Await(const std::function<bool()>& holds) {
    const auto end = std::chrono::steady_clock::now() + kTimeout;
    while (!holds()) {
      if (std::chrono::steady_clock::now() > end) return false;
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    return true;
  }

  static std::string why_not_;
  static std::unique_ptr<QemuEnvironment> environment_;
  static std::string first_host_said_;
  test::GuestEvents events_;
  std::unique_ptr<Hypervisor> hypervisor_;
};
std::string QemuGuest::why_not_;
std::unique_ptr<QemuEnvironment> QemuGuest::environment_;
std::string QemuGuest::first_host_said_;

TEST_F(QemuGuest, Guest_HostKilled_IsAdoptedRebootsAndShutsDown) {
  ASSERT_EQ(first_host_said_, "ok");
  EXPECT_EQ(State(kAdopted), GuestState::kRunning);
  EXPECT_EQ(OutcomeName(hypervisor_->Start(kAdopted)), "already_running");

  ASSERT_TRUE(Await([&] { return HasAgent(kAdopted); }));
  // An agent that has connected does not answer yet.
  ASSERT_TRUE(Await([&] { return Addresses(kAdopted).size() == 2; }));
  const std::vector<std::string> before = Addresses(kAdopted);
  EXPECT_THAT(before, Contains(kGuestAddress));

  const Result<void, Failure> rebooted = hypervisor_->Reboot(kAdopted);
  ASSERT_TRUE(rebooted.ok()) << Why(rebooted);
  ASSERT_TRUE(Await([&] {
    const std::vector<std::string> now = Addresses(kAdopted);
    return now.size() == 2 && now != before;
  }));
  EXPECT_EQ(State(kAdopted), GuestState::kRunning);

  const Result<void, Failure> down = hypervisor_->ShutDown(kAdopted);
  EXPECT_TRUE(down.ok()) << Why(down);
  // Its agent may be gone before its machine is.
  EXPECT_TRUE(Await([&] { return State(kAdopted) == GuestState::kOff; }));
  EXPECT_THAT(events_.Await(kAdopted, 2), ElementsAre(GuestState::kShuttingDown, GuestState::kOff));
}

TEST_F(QemuGuest, Guest_BootedFromDisk_ShutsDownOnPowerButton) {
  Define(QemuGuestRecords(kGuest, "disk", environment_->Image(GuestImage::kWithoutAgent), BootMedium::kDisk));
  ASSERT_EQ(OutcomeName(hypervisor_->Start(kGuest)), "ok");
  EXPECT_EQ(State(kGuest), GuestState::kRunning);
  EXPECT_FALSE(HasAgent(kGuest));
  EXPECT_THAT(Addresses(kGuest), IsEmpty());
  // The first presses are lost on a guest that is just starting.
  EXPECT_TRUE(Await([&] {
    (void)hypervisor_->ShutDown(kGuest);
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    return State(kGuest) == GuestState::kOff;
  }));
  EXPECT_THAT(events_.Await(kGuest, 4),
              ElementsAre(GuestState::kOff, GuestState::kRunning, GuestState::kShuttingDown, GuestState::kOff));
}

TEST_F(QemuGuest, ShutDown_GuestIgnoresButton_KeepsRunningUntilPowerOff) {
  Define(QemuGuestRecords(kGuest, "deaf", ""));
  for (int i = 0; i < 2; ++i) {
    ASSERT_EQ(OutcomeName(hypervisor_->Start(kGuest)), "ok");
    EXPECT_EQ(OutcomeName(hypervisor_->ShutDown(kGuest)), "ok");
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    EXPECT_EQ(State(kGuest), GuestState::kRunning);
    EXPECT_EQ(OutcomeName(hypervisor_->Undefine(kGuest, hypervisor::UndefineScope::kDefinition)), "already_running");
    EXPECT_EQ(OutcomeName(hypervisor_->PowerOff(kGuest)), "ok");
    EXPECT_EQ(State(kGuest), GuestState::kOff);
    EXPECT_EQ(OutcomeName(hypervisor_->PowerOff(kGuest)), "not_running");
  }
}

TEST_F(QemuGuest, Guest_QemuKilled_HasCrashedAndStartsAgain) {
  Define(QemuGuestRecords(kGuest, "killed", ""));
  ASSERT_EQ(OutcomeName(hypervisor_->Start(kGuest)), "ok");
  EXPECT_EQ(KillQemus(environment_->folder()), 1);
  EXPECT_THAT(events_.Await(kGuest, 3), ElementsAre(GuestState::kOff, GuestState::kRunning, GuestState::kCrashed));
  EXPECT_EQ(State(kGuest), GuestState::kCrashed);
  EXPECT_EQ(OutcomeName(hypervisor_->Start(kGuest)), "ok");
  EXPECT_EQ(State(kGuest), GuestState::kRunning);
}

// --- what a guest cannot start without

TEST_F(QemuGuest, Start_DiskFileMissing_ReportsDiskMissing) {
  ExpectStartFails(QemuGuestRecords(kGuest, "disk", environment_->folder() + "/nowhere.img", BootMedium::kDisk),
                   "disk_missing");
  EXPECT_EQ(State(kGuest), GuestState::kOff);
}

TEST_F(QemuGuest, Start_IsoImageMissing_ReportsDiskMissing) {
  ExpectStartFails(QemuGuestRecords(kGuest, "iso", environment_->folder() + "/nowhere.iso"), "disk_missing");
}

TEST_F(QemuGuest, Start_BridgeMissing_ReportsBridgeMissing) {
  domain_xml::GuestRecords records = QemuGuestRecords(kGuest, "bridge", "");
  records.nics[0].second["network_name"] = "vexa-none0";
  ExpectStartFails(records, "bridge_missing");
}

TEST_F(QemuGuest, Start_NetworkMissing_ReportsNetworkMissing) {
  domain_xml::GuestRecords records = QemuGuestRecords(kGuest, "network", "");
  records.nics[0].second["network_name"] = "lab";
  ExpectStartFails(records, "network_missing");
}

TEST_F(QemuGuest, Start_MoreMemoryThanHost_ReportsNoMemory) {
  domain_xml::GuestRecords records = QemuGuestRecords(kGuest, "big", "");
  records.guest["vram_size"] = 2'000'000;
  ExpectStartFails(records, "no_memory");
}

TEST_F(QemuGuest, EmbeddedDriver_Open_HasNoNetworksButNodeInfo) {
  const Result<std::vector<std::string>, Failure> networks = hypervisor_->Networks();
  ASSERT_TRUE(networks.ok()) << Why(networks);
  EXPECT_THAT(*networks, IsEmpty());
  const Result<hypervisor::NodeInfo, Failure> node = hypervisor_->GetNodeInfo();
  ASSERT_TRUE(node.ok()) << Why(node);
  EXPECT_EQ(node->cpus, std::thread::hardware_concurrency());
}

}  // namespace
}  // namespace vexa::test
