// Actions on guests when calls of libvirt fail.
#include <condition_variable>
#include <mutex>

#include "tests/support/libvirt_faults.h"
#include "tests/unit/guests/guest_control_fixture.h"

namespace vexa::guests {
namespace {

class GuestControlFaults : public GuestControlTest {
 protected:
  ~GuestControlFaults() override { test::IgnoreButtonPresses(0); }

  static void Await(const std::function<bool()>& holds) {
    const auto end = std::chrono::steady_clock::now() + 30s;
    while (!holds() && std::chrono::steady_clock::now() < end) std::this_thread::sleep_for(5ms);
    EXPECT_TRUE(holds());
  }
};

struct StartRow {
  test::LibvirtError error;
  int code;
};

TEST_F(GuestControlFaults, PowerOn_LibvirtRefuses_ReturnsKnownCode) {
  const StartRow rows[] = {
      {{VIR_ERR_NO_NETWORK, "network not found", 0, VIR_FROM_NETWORK}, 917},
      {{VIR_ERR_SYSTEM_ERROR, "Cannot get interface MTU on 'br': No such device", ENODEV, VIR_FROM_QEMU}, 917},
      {{VIR_ERR_SYSTEM_ERROR, "Cannot access storage file: No such file or directory", ENOENT, VIR_FROM_QEMU}, 949},
      {{VIR_ERR_INTERNAL_ERROR, "cannot set up guest memory 'pc.ram': Cannot allocate memory", 0, VIR_FROM_QEMU}, 928},
      {{VIR_ERR_OPERATION_TIMEOUT, "cannot acquire state change lock", 0, VIR_FROM_QEMU}, 915},
      {{VIR_ERR_CPU_INCOMPATIBLE, "guest and host CPU are not compatible", 0, VIR_FROM_CPU}, 955},
      {{VIR_ERR_INTERNAL_ERROR, "something else", 0, VIR_FROM_QEMU}, 901},
      {{VIR_ERR_ACCESS_DENIED, "no", 0, VIR_FROM_QEMU}, 901},
  };
  // Of the calls of the action, the start alone.
  std::optional<test::LibvirtError> error;
  std::optional<test::FailingStarts> failing;
  GuestControlOptions options = Options();
  options.before_step = [&](std::string_view step) {
    if (step == "poweron: defined" && error) failing.emplace(*error);
    if (step == "poweron: started") failing.reset();
  };
  Start(std::move(options));
  for (const StartRow& row : rows) {
    SCOPED_TRACE(row.error.message);
    error = row.error;
    EXPECT_REFUSED(control_->PowerOn(kGuest, kAlice), row.code, "");
    EXPECT_EQ(State(), states::shutdown);
    EXPECT_EQ(RunOf(), std::nullopt) << "nobody has a guest that did not start";
  }
  error.reset();
  EXPECT_DONE(control_->PowerOn(kGuest, kAlice));
}

TEST_F(GuestControlFaults, ShutDown_ButtonPressLost_IsRepeated) {
  Start();
  EXPECT_DONE(control_->PowerOn(kGuest, kAlice));
  test::IgnoreButtonPresses(5);
  EXPECT_DONE(control_->ShutDown(kGuest, kAlice));
  EXPECT_EQ(State(), states::shutting_down);
  ExpectState(states::shutdown);
  ExpectNoRun();
  EXPECT_GE(test::ButtonPresses(), 6);
}

TEST_F(GuestControlFaults, ShutDown_GuestNeverResponds_KeepsRunning) {
  GuestControlOptions options = Options();
  options.shut_down_wait = 200ms;
  Start(std::move(options));
  EXPECT_DONE(control_->PowerOn(kGuest, kAlice));
  test::IgnoreButtonPresses(1'000'000);
  EXPECT_DONE(control_->ShutDown(kGuest, kAlice));
  EXPECT_EQ(State(), states::shutting_down);
  ExpectState(states::running);
  const int pressed = test::ButtonPresses();
  std::this_thread::sleep_for(100ms);
  EXPECT_EQ(test::ButtonPresses(), pressed) << "it is left alone";
  EXPECT_DONE(control_->PowerOff(kGuest, kAlice));
}

TEST_F(GuestControlFaults, RebootOrPowerOff_WhileShuttingDown_EndsTheShutDown) {
  Start();
  test::IgnoreButtonPresses(1'000'000);
  EXPECT_DONE(control_->PowerOn(kGuest, kAlice));
  EXPECT_DONE(control_->ShutDown(kGuest, kAlice));
  EXPECT_DONE(control_->Reboot(kGuest, kAlice));
  EXPECT_EQ(State(), states::running);
  EXPECT_DONE(control_->ShutDown(kGuest, kAlice));
  EXPECT_DONE(control_->PowerOff(kGuest, kAlice));
  EXPECT_EQ(State(), states::shutdown);
  const int pressed = test::ButtonPresses();
  std::this_thread::sleep_for(100ms);
  EXPECT_EQ(test::ButtonPresses(), pressed);
}

TEST_F(GuestControlFaults, LostConnection_RunningGuests_AreRestored) {
  PutGuest(kOther, "web-2");
  Start();
  EXPECT_DONE(control_->PowerOn(kGuest, kAlice));
  test::CloseLastConnection();
  // The test driver has forgotten the guest, which is started again.
  Await([&] { return control_->FindRunningGuest(kGuest).has_value(); });
  ExpectState(states::running);
  Await([&] {
    const auto refused = control_->PowerOn(kGuest, kAlice);
    return !refused.ok() && refused.error().code == 910;
  });
  EXPECT_DONE(control_->PowerOn(kOther, kAlice));
  EXPECT_DONE(control_->PowerOff(kGuest, kAlice));
  EXPECT_EQ(State(), states::shutdown);
}

TEST_F(GuestControlFaults, Calls_HypervisorUnreachable_AreRefusedUntilReconnected) {
  PutRun(RunHere());
  PutGuest(kGuest, "web-1", Parsed(R"({"state":"guest_running"})"));
  GuestControlOptions options = Options();
  options.hypervisor.initial_retry_wait = 20ms;
  std::optional<test::FailingConnects> failing;
  failing.emplace(test::LibvirtError{VIR_ERR_SYSTEM_ERROR, "Failed to connect socket", ECONNREFUSED, VIR_FROM_RPC});
  Start(std::move(options));
  EXPECT_REFUSED(control_->PowerOn(kOther, kAlice), 403, "");
  EXPECT_REFUSED(control_->PowerOn(kGuest, kAlice), 949, "");
  EXPECT_REFUSED(control_->PowerOff(kGuest, kAlice), 949, "");
  EXPECT_REFUSED(control_->Fence(kGuest), 949, "");
  EXPECT_FALSE(control_->FindRunningGuest(kGuest));
  const auto rating = control_->RateGuest(kGuest);
  ASSERT_TRUE(rating);
  ASSERT_FALSE(rating->refusals.empty());
  EXPECT_EQ(rating->refusals.front().code, 949);
  EXPECT_TRUE(RunOf()) << "nobody knows whether it runs";
  failing.reset();
  Await([&] { return control_->FindRunningGuest(kGuest).has_value(); });
  ExpectState(states::running);
}

// The reconcile that an event started still uses the hypervisor.
TEST_F(GuestControlFaults, Stop_DuringReconcile_WaitsForIt) {
  std::mutex mutex;
  std::condition_variable changed;
  bool reached = false;
  GuestControlOptions options = Options();
  options.before_step = [&](std::string_view step) {
    if (step != "reconcile: state stored" || State() != states::shutdown) return;
    {
      const std::lock_guard lock(mutex);
      reached = true;
    }
    changed.notify_all();
    std::this_thread::sleep_for(300ms);  // the end begins meanwhile
  };
  Start(std::move(options));
  EXPECT_DONE(control_->PowerOn(kGuest, kAlice));
  // The second press ends it, with nobody but the event's thread to look.
  test::IgnoreButtonPresses(1);
  EXPECT_DONE(control_->ShutDown(kGuest, kAlice));
  {
    std::unique_lock lock(mutex);
    ASSERT_TRUE(changed.wait_for(lock, 20s, [&] { return reached; }));
  }
  control_.reset();
  EXPECT_EQ(State(), states::shutdown);
  EXPECT_EQ(RunOf(), std::nullopt);
}

}  // namespace
}  // namespace vexa::guests
