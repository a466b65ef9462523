// A QEMU that does not respond: it can still be powered off, and nothing else waits for it.
#include <gmock/gmock.h>
#include <signal.h>

#include <atomic>
#include <thread>

#include "tests/support/qemu_host_test.h"

namespace vexa::test {
namespace {

using namespace std::chrono_literals;

constexpr char kGuest[] = "11111111-2222-4333-8444-000000000001";
constexpr char kOther[] = "11111111-2222-4333-8444-000000000002";
constexpr auto kStopTimeout = 4s;
constexpr auto kPowerOffLimit = 30s;
// What a start takes, several times over, on a machine that is busy.
constexpr auto kStartLimit = 30s;

class QemuHang : public EmbeddedHostTest {
 protected:
  std::string UnavailableReason() override { return QemuUnavailableReason(); }
  void MakeHost() override {
    EmbeddedHostTest::MakeHost();
    host_->options().stop_timeout = kStopTimeout;
    for (const char* const id : {kGuest, kOther}) {
      HostGuest guest;
      guest.id = id;
      guest.name = id;
      guest.image = GuestImage::kWithoutAgent;
      host_->PutGuest(guest);
    }
    host_->Start();
    ASSERT_EQ(host_->Power(kGuest, "poweron"), 0) << host_->Log();
    for (const int pid : QemusOf(environment_->folder(), kGuest)) ASSERT_EQ(::kill(pid, SIGSTOP), 0);
  }
  void TearDown() override {
    if (environment_) KillQemus(environment_->folder());
    if (hanging_.joinable()) hanging_.join();
    EmbeddedHostTest::TearDown();
  }

  // A user requests something that QEMU has to do, and waits.
  void StartHangingCall(const char* action) {
    hanging_ = std::thread([this, action] { (void)host_->Power(kGuest, action); });
    std::this_thread::sleep_for(1s);
  }
  std::thread hanging_;
};

TEST_F(QemuHang, PowerOff_GuestHangsInShutDown_SucceedsAndOthersStart) {
  StartHangingCall("shutdown");
  auto begin = std::chrono::steady_clock::now();
  EXPECT_EQ(host_->Power(kOther, "poweron"), 0);
  EXPECT_LT(std::chrono::steady_clock::now() - begin, kStartLimit);
  begin = std::chrono::steady_clock::now();
  EXPECT_EQ(host_->Power(kGuest, "poweroff"), 0);
  EXPECT_LT(std::chrono::steady_clock::now() - begin, kPowerOffLimit);
  EXPECT_TRUE(host_->AwaitOff(kGuest));
  EXPECT_TRUE(host_->AwaitState(kGuest, "guest_shutdown")) << host_->State(kGuest);
  EXPECT_EQ(host_->Qemus(kOther), 1);
  EXPECT_EQ(host_->Power(kGuest, "poweron"), 0) << "it can be started again";
}

TEST_F(QemuHang, Stop_DuringHungCall_EndsWithinTimeout) {
  StartHangingCall("shutdown");
  const auto took = host_->Stop(60s);
  ASSERT_TRUE(took.has_value()) << "it had to be killed";
  EXPECT_LE(*took, kStopTimeout + 5s);
  EXPECT_EQ(host_->Qemus(kGuest), 1) << "guests run on";
}

TEST_F(QemuHang, PowerOff_GuestHangsInReboot_Succeeds) {
  StartHangingCall("reboot");
  const auto begin = std::chrono::steady_clock::now();
  EXPECT_EQ(host_->Power(kGuest, "poweroff"), 0);
  EXPECT_LT(std::chrono::steady_clock::now() - begin, kPowerOffLimit);
  EXPECT_TRUE(host_->AwaitOff(kGuest));
}

TEST_F(QemuHang, PowerOff_DuringHungStart_EndsItAndGuestStartsAgain) {
  ASSERT_EQ(host_->Power(kGuest, "poweroff"), 0);
  ASSERT_TRUE(host_->AwaitOff(kGuest));
  std::atomic<int> start_result{0};
  hanging_ = std::thread([&] { start_result = host_->Power(kGuest, "poweron"); });
  const auto until = std::chrono::steady_clock::now() + kStartLimit;
  std::vector<int> qemus;
  while (qemus.empty() && std::chrono::steady_clock::now() < until) qemus = QemusOf(environment_->folder(), kGuest);
  for (const int pid : qemus) ASSERT_EQ(::kill(pid, SIGSTOP), 0);
  EXPECT_EQ(host_->Power(kGuest, "poweroff"), 0) << host_->Log();
  hanging_.join();
  EXPECT_NE(start_result, 0) << "the start was stopped too late";
  EXPECT_TRUE(host_->AwaitOff(kGuest));
  EXPECT_THAT(host_->Log(), testing::HasSubstr("It was powered off before the start ended"));
  EXPECT_EQ(host_->Power(kGuest, "poweron"), 0);
}

}  // namespace
}  // namespace vexa::test
