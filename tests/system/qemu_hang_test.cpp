// A QEMU that does not answer: it is powered off all the same, and nothing else waits for it.
#include <signal.h>

#include <thread>

#include "tests/support/qemu_host_test.h"

namespace vexa::test {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

constexpr char kGuest[] = "11111111-2222-4333-8444-000000000001";
constexpr char kOther[] = "11111111-2222-4333-8444-000000000002";
constexpr auto kStopTimeout = 4s;
constexpr auto kPowerOffLimit = 30s;
// What a start takes, several times over, on a machine that is busy.
constexpr auto kStartLimit = 30s;

class QemuHang : public EmbeddedHostTest {
 protected:
  std::string WhyNot() override { return WhyNoQemuGuests(); }
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
    for (const int pid : QemusOf(ground_->folder(), kGuest)) ASSERT_EQ(::kill(pid, SIGSTOP), 0);
  }
  void TearDown() override {
    if (ground_) KillQemus(ground_->folder());
    if (hanging_.joinable()) hanging_.join();
    EmbeddedHostTest::TearDown();
  }

  // Somebody asks for what QEMU would have to do, and waits.
  void AskAndHang(const char* action) {
    hanging_ = std::thread([this, action] { (void)host_->Power(kGuest, action); });
    std::this_thread::sleep_for(1s);
  }
  std::thread hanging_;
};

TEST_F(QemuHang, GuestHangsInAShutDown_IsPoweredOffAndOthersStart) {
  AskAndHang("shutdown");
  auto begin = Clock::now();
  EXPECT_EQ(host_->Power(kOther, "poweron"), 0);
  EXPECT_LT(Clock::now() - begin, kStartLimit);
  begin = Clock::now();
  EXPECT_EQ(host_->Power(kGuest, "poweroff"), 0);
  EXPECT_LT(Clock::now() - begin, kPowerOffLimit);
  EXPECT_TRUE(host_->AwaitOff(kGuest));
  EXPECT_TRUE(host_->AwaitState(kGuest, "guest_shutdown")) << host_->State(kGuest);
  EXPECT_EQ(host_->Qemus(kOther), 1);
  EXPECT_EQ(host_->Power(kGuest, "poweron"), 0) << "it can be started again";
}

TEST_F(QemuHang, HostIsStoppedDuringAHungCall_EndsInItsTime) {
  AskAndHang("shutdown");
  const auto took = host_->Stop(60s);
  ASSERT_TRUE(took.has_value()) << "it had to be killed";
  EXPECT_LE(*took, kStopTimeout + 5s);
  EXPECT_EQ(host_->Qemus(kGuest), 1) << "guests run on";
}

TEST_F(QemuHang, GuestHangsInAReboot_IsPoweredOff) {
  AskAndHang("reboot");
  const auto begin = Clock::now();
  EXPECT_EQ(host_->Power(kGuest, "poweroff"), 0);
  EXPECT_LT(Clock::now() - begin, kPowerOffLimit);
  EXPECT_TRUE(host_->AwaitOff(kGuest));
}

}  // namespace
}  // namespace vexa::test
