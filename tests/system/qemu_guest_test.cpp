// Real guests on QEMU: what only a guest that runs can show.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <functional>
#include <thread>

#include "host/hypervisor/hypervisor.h"
#include "tests/support/guest_events.h"
#include "tests/support/qemu_guest.h"

namespace vexa::test {
namespace {

using hypervisor::BuildOptions;
using hypervisor::CpuShares;
using hypervisor::GuestRecords;
using hypervisor::GuestState;
using hypervisor::Hypervisor;
using hypervisor::HypervisorOptions;
using hypervisor::Outcome;
using hypervisor::UndefineScope;
using std::chrono::milliseconds;
using std::chrono::seconds;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr const char* kAdopted = "11111111-2222-4333-8444-000000000001";
constexpr const char* kGuest = "11111111-2222-4333-8444-000000000002";
constexpr auto kPatience = seconds(120);

template <class T>
std::string Why(const Outcome<T>& outcome) {
  return outcome.ok() ? "" : outcome.failure().ToString();
}

HypervisorOptions EmbedOptions(const QemuGround& ground) {
  HypervisorOptions options;
  options.mode = "embed";
  options.root = ground.root();
  return options;
}

Outcome<std::string> DefineFrom(Hypervisor& hypervisor, const GuestRecords& records) {
  BuildOptions options;
  options.domain_type = hypervisor.DomainType();
  options.cpu_shares = CpuShares::kLeftOut;
  options.libvirt_networks = {"lab"};
  const Result<std::string> xml = BuildDomainXml(records, options);
  if (!xml) return hypervisor::Failure(hypervisor::Problem::kInvalid, xml.error().ToString());
  return hypervisor.Define(*xml);
}

// A host that starts a guest, says how that went, and hangs until it is killed.
[[noreturn]] void RunHost(const QemuGround& ground, int answer) {
  std::string said = "ok";
  Outcome<std::unique_ptr<Hypervisor>> opened = Hypervisor::Open(EmbedOptions(ground));
  if (opened) {
    const auto records = QemuGuestRecords(kAdopted, "adopted", ground.Image(GuestImage::kWithAgent));
    const Outcome<std::string> id = DefineFrom(**opened, records);
    const Outcome<void> started = id ? (*opened)->Start(*id) : Outcome<void>(id.failure());
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
    why_not_ = WhyNoQemuGuests();
    if (!why_not_.empty()) return;
    ground_ = std::make_unique<QemuGround>();
    int answer[2];
    ASSERT_EQ(::pipe(answer), 0);
    const pid_t host = ::fork();
    ASSERT_GE(host, 0);
    if (host == 0) {
      ::close(answer[0]);
      ground_->LetGo();
      RunHost(*ground_, answer[1]);
    }
    ::close(answer[1]);
    first_host_said_ = ReadAll(answer[0]);
    ::close(answer[0]);
    ::kill(host, SIGKILL);
    ::waitpid(host, nullptr, 0);
  }
  static void TearDownTestSuite() { ground_.reset(); }

  void SetUp() override {
    if (!why_not_.empty()) GTEST_SKIP() << SkipNotice(why_not_);
    HypervisorOptions options = EmbedOptions(*ground_);
    events_.Listen(options);
    Outcome<std::unique_ptr<Hypervisor>> opened = Hypervisor::Open(std::move(options));
    ASSERT_TRUE(opened.ok()) << Why(opened);
    hypervisor_ = std::move(*opened);
  }
  void TearDown() override {
    if (!hypervisor_ || hypervisor_->StateOf(kGuest).ok() == false) return;
    EXPECT_THAT(Word(hypervisor_->PowerOff(kGuest)), testing::AnyOf("ok", "not_running"));
    EXPECT_EQ(Word(hypervisor_->Undefine(kGuest, UndefineScope::kDefinition)), "ok");
  }

  void Define(const GuestRecords& records) {
    const Outcome<std::string> defined = DefineFrom(*hypervisor_, records);
    ASSERT_TRUE(defined.ok()) << Why(defined);
  }
  GuestState State(const char* id) {
    const Outcome<GuestState> state = hypervisor_->StateOf(id);
    EXPECT_TRUE(state.ok()) << Why(state);
    return state.ok() ? *state : GuestState::kGone;
  }
  bool HasAgent(const char* id) {
    const Outcome<bool> agent = hypervisor_->HasAgent(id);
    EXPECT_TRUE(agent.ok()) << Why(agent);
    return agent.ok() && *agent;
  }
  std::vector<std::string> Addresses(const char* id) {
    const Outcome<std::vector<std::string>> addresses = hypervisor_->AddressesOf(id);
    EXPECT_TRUE(addresses.ok()) << Why(addresses);
    return addresses.ok() ? *addresses : std::vector<std::string>{};
  }
  static bool Await(const std::function<bool()>& holds) {
    const auto end = std::chrono::steady_clock::now() + kPatience;
    while (!holds()) {
      if (std::chrono::steady_clock::now() > end) return false;
      std::this_thread::sleep_for(milliseconds(50));
    }
    return true;
  }

  static std::string why_not_;
  static std::unique_ptr<QemuGround> ground_;
  static std::string first_host_said_;
  test::GuestEvents events_;
  std::unique_ptr<Hypervisor> hypervisor_;
};
std::string QemuGuest::why_not_;
std::unique_ptr<QemuGround> QemuGuest::ground_;
std::string QemuGuest::first_host_said_;

TEST_F(QemuGuest, WhoseHostWasKilled_IsAdoptedRebootsAndShutsDown) {
  ASSERT_EQ(first_host_said_, "ok");
  EXPECT_EQ(State(kAdopted), GuestState::kRunning);
  EXPECT_EQ(Word(hypervisor_->Start(kAdopted)), "already_running");

  ASSERT_TRUE(Await([&] { return HasAgent(kAdopted); }));
  // An agent that has connected does not answer yet.
  ASSERT_TRUE(Await([&] { return Addresses(kAdopted).size() == 2; }));
  const std::vector<std::string> before = Addresses(kAdopted);
  EXPECT_THAT(before, Contains(kGuestAddress));

  const Outcome<void> rebooted = hypervisor_->Reboot(kAdopted);
  ASSERT_TRUE(rebooted.ok()) << Why(rebooted);
  ASSERT_TRUE(Await([&] {
    const std::vector<std::string> now = Addresses(kAdopted);
    return now.size() == 2 && now != before;
  }));
  EXPECT_EQ(State(kAdopted), GuestState::kRunning);

  const Outcome<void> down = hypervisor_->ShutDown(kAdopted);
  EXPECT_TRUE(down.ok()) << Why(down);
  // Its agent may be gone before its machine is.
  EXPECT_TRUE(Await([&] { return State(kAdopted) == GuestState::kOff; }));
  EXPECT_THAT(events_.Await(kAdopted, 2), ElementsAre(GuestState::kShuttingDown, GuestState::kOff));
}

TEST_F(QemuGuest, FromADisk_ListensToThePowerButtonOnceItIsUp) {
  Define(QemuGuestRecords(kGuest, "disk", ground_->Image(GuestImage::kWithoutAgent), StartsFrom::kDisk));
  ASSERT_EQ(Word(hypervisor_->Start(kGuest)), "ok");
  EXPECT_EQ(State(kGuest), GuestState::kRunning);
  EXPECT_FALSE(HasAgent(kGuest));
  EXPECT_THAT(Addresses(kGuest), IsEmpty());
  // The first presses are lost on a guest that is just starting.
  EXPECT_TRUE(Await([&] {
    (void)hypervisor_->ShutDown(kGuest);
    std::this_thread::sleep_for(milliseconds(500));
    return State(kGuest) == GuestState::kOff;
  }));
  EXPECT_THAT(events_.Await(kGuest, 4),
              ElementsAre(GuestState::kOff, GuestState::kRunning, GuestState::kShuttingDown, GuestState::kOff));
}

TEST_F(QemuGuest, ThatNeverListens_IsStillRunningUntilItIsPoweredOff) {
  Define(QemuGuestRecords(kGuest, "deaf", ""));
  for (int i = 0; i < 2; ++i) {
    ASSERT_EQ(Word(hypervisor_->Start(kGuest)), "ok");
    EXPECT_EQ(Word(hypervisor_->ShutDown(kGuest)), "ok");
    std::this_thread::sleep_for(milliseconds(300));
    EXPECT_EQ(State(kGuest), GuestState::kRunning);
    EXPECT_EQ(Word(hypervisor_->Undefine(kGuest, UndefineScope::kDefinition)), "already_running");
    EXPECT_EQ(Word(hypervisor_->PowerOff(kGuest)), "ok");
    EXPECT_EQ(State(kGuest), GuestState::kOff);
    EXPECT_EQ(Word(hypervisor_->PowerOff(kGuest)), "not_running");
  }
}

TEST_F(QemuGuest, WhoseQemuIsKilled_HasCrashedAndStartsAgain) {
  Define(QemuGuestRecords(kGuest, "killed", ""));
  ASSERT_EQ(Word(hypervisor_->Start(kGuest)), "ok");
  EXPECT_EQ(KillQemus(ground_->folder()), 1);
  EXPECT_THAT(events_.Await(kGuest, 3), ElementsAre(GuestState::kOff, GuestState::kRunning, GuestState::kCrashed));
  EXPECT_EQ(State(kGuest), GuestState::kCrashed);
  EXPECT_EQ(Word(hypervisor_->Start(kGuest)), "ok");
  EXPECT_EQ(State(kGuest), GuestState::kRunning);
}

// --- what a guest cannot start without

TEST_F(QemuGuest, Start_DiskFileMissing_ReportsDiskMissing) {
  Define(QemuGuestRecords(kGuest, "disk", ground_->folder() + "/nowhere.img", StartsFrom::kDisk));
  const Outcome<void> started = hypervisor_->Start(kGuest);
  EXPECT_EQ(Word(started), "disk_missing") << Why(started);
  EXPECT_EQ(State(kGuest), GuestState::kOff);
}

TEST_F(QemuGuest, Start_IsoImageMissing_ReportsDiskMissing) {
  Define(QemuGuestRecords(kGuest, "iso", ground_->folder() + "/nowhere.iso"));
  const Outcome<void> started = hypervisor_->Start(kGuest);
  EXPECT_EQ(Word(started), "disk_missing") << Why(started);
}

TEST_F(QemuGuest, Start_BridgeMissing_ReportsBridgeMissing) {
  GuestRecords records = QemuGuestRecords(kGuest, "bridge", "");
  records.nics[0].second["network_name"] = "vexa-none0";
  Define(records);
  const Outcome<void> started = hypervisor_->Start(kGuest);
  EXPECT_EQ(Word(started), "bridge_missing") << Why(started);
}

TEST_F(QemuGuest, Start_NetworkMissing_ReportsNetworkMissing) {
  GuestRecords records = QemuGuestRecords(kGuest, "network", "");
  records.nics[0].second["network_name"] = "lab";
  Define(records);
  const Outcome<void> started = hypervisor_->Start(kGuest);
  EXPECT_EQ(Word(started), "network_missing") << Why(started);
}

TEST_F(QemuGuest, Start_MoreMemoryThanHost_ReportsNoMemory) {
  GuestRecords records = QemuGuestRecords(kGuest, "big", "");
  records.guest["vram_size"] = 2'000'000;
  Define(records);
  const Outcome<void> started = hypervisor_->Start(kGuest);
  EXPECT_EQ(Word(started), "no_memory") << Why(started);
}

TEST_F(QemuGuest, EmbeddedDriver_HasNoNetworksAndFigures) {
  const Outcome<std::vector<std::string>> networks = hypervisor_->Networks();
  ASSERT_TRUE(networks.ok()) << Why(networks);
  EXPECT_THAT(*networks, IsEmpty());
  const Outcome<hypervisor::Node> node = hypervisor_->NodeFigures();
  ASSERT_TRUE(node.ok()) << Why(node);
  EXPECT_EQ(node->cpus, std::thread::hardware_concurrency());
}

}  // namespace
}  // namespace vexa::test
