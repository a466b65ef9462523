// Guests that are suspended, resumed, saved and restored.
#include "tests/support/libvirt_faults.h"
#include "tests/support/syslog_capture.h"
#include "tests/unit/guests/guest_control_fixture.h"

namespace vexa::guests {
namespace {

constexpr char kDisk[] = "d1b2c3d4-0000-4000-8000-000000000001";

class GuestSuspend : public GuestControlTest {
 protected:
  void StartRunning() {
    Start();
    ASSERT_TRUE(control_->PowerOn(kGuest, kAlice).ok());
  }
  static int StateOfDomain() { return test::StateAsUser(kGuest); }
};

TEST_F(GuestSuspend, Suspend_GuestRunning_IsPausedUntilResumed) {
  ASSERT_NO_FATAL_FAILURE(StartRunning());
  EXPECT_DONE(control_->Suspend(kGuest, kAlice));
  EXPECT_EQ(StateOfDomain(), VIR_DOMAIN_PAUSED);
  EXPECT_EQ(State(), states::freeze);
  ASSERT_TRUE(RunOf());
  EXPECT_FALSE(RunOf()->saved);
  EXPECT_DONE(control_->Suspend(kGuest, kAlice));
  EXPECT_EQ(State(), states::freeze) << "again succeeds";
  EXPECT_DONE(control_->Resume(kGuest, kAlice));
  EXPECT_EQ(StateOfDomain(), VIR_DOMAIN_RUNNING);
  EXPECT_EQ(State(), states::running);
  EXPECT_DONE(control_->Resume(kGuest, kAlice));
  EXPECT_EQ(State(), states::running);
}

TEST_F(GuestSuspend, SuspendedGuest_CountsAsRunning) {
  Json::Value disk = Parsed(R"({"vdisk_mode":1,"size":1,"name":"vda","driver":"raw"})");
  disk["guest_id"] = kGuest;
  disk["path"] = host_.folder().File("vda.img");
  host_.Put("vdisk", kDisk, disk);
  PutGuest(kGuest, "web-1", Parsed(R"({"vdisks":[")" + std::string(kDisk) + R"("]})"));
  ASSERT_NO_FATAL_FAILURE(StartRunning());
  EXPECT_DONE(control_->Suspend(kGuest, kAlice));
  EXPECT_REFUSED(control_->PowerOn(kGuest, kAlice), 910, "The guest is suspended. Resume it with 'vexa guest resume'");
  EXPECT_REFUSED(control_->Restore(kGuest, kAlice), 910, "The guest is suspended. Resume it with 'vexa guest resume'");
  EXPECT_REFUSED(control_->Delete(kGuest, kAlice), 910, "The guest may be running on the host '" + HostId() + "'");
  EXPECT_REFUSED(control_->SetHost(kGuest, "host-2"), 910, "The guest may be running on the host '" + HostId() + "'");
  EXPECT_REFUSED(control_->Release(kGuest, kAlice), 910, "The guest may be running on the host '" + HostId() + "'");
  EXPECT_REFUSED(control_->DiscardSaved(kGuest, kAlice), 911, "The guest has no saved memory");
  EXPECT_REFUSED(
      control_->Edit(kGuest, Parsed(R"({"vdisks_del":[{"vdisk_id":")" + std::string(kDisk) + R"("}]})"), kAlice), 944,
      "The disks cannot be changed because the guest is suspended");
  EXPECT_DONE(control_->Edit(kGuest, Parsed(R"({"desc":"waits"})"), kAlice));
  EXPECT_EQ(State(), states::freeze);
  EXPECT_EQ(StateOfDomain(), VIR_DOMAIN_PAUSED);
  EXPECT_DONE(control_->PowerOff(kGuest, kAlice));
  EXPECT_EQ(State(), states::shutdown);
  EXPECT_EQ(RunOf(), std::nullopt);
}

TEST_F(GuestSuspend, SuspendedGuest_ProcessRestarted_StaysSuspended) {
  GuestControlOptions options = Options();
  options.maintenance_interval = 10ms;
  Start(options);
  EXPECT_DONE(control_->PowerOn(kGuest, kAlice));
  EXPECT_DONE(control_->Suspend(kGuest, kAlice));
  Kill();
  EXPECT_EQ(State(), states::freeze);
  Start(options);
  EXPECT_EQ(State(), states::freeze);
  std::this_thread::sleep_for(200ms);
  EXPECT_EQ(StateOfDomain(), VIR_DOMAIN_PAUSED) << "after maintenance";
  EXPECT_EQ(State(), states::freeze);
  EXPECT_DONE(control_->Resume(kGuest, kAlice));
  EXPECT_EQ(State(), states::running);
}

TEST_F(GuestSuspend, Save_GuestRunning_IsSavedUntilRestored) {
  ASSERT_NO_FATAL_FAILURE(StartRunning());
  EXPECT_DONE(control_->Save(kGuest, kAlice));
  EXPECT_EQ(State(), states::saved);
  ASSERT_TRUE(RunOf());
  EXPECT_TRUE(RunOf()->saved);
  for (auto refused :
       {control_->Suspend(kGuest, kAlice), control_->Resume(kGuest, kAlice), control_->Save(kGuest, kAlice)}) {
    EXPECT_REFUSED(refused, 911, "The guest does not run");
  }
  EXPECT_DONE(control_->Restore(kGuest, kAlice));
  EXPECT_EQ(State(), states::running);
  EXPECT_FALSE(RunOf()->saved);
  EXPECT_REFUSED(control_->Restore(kGuest, kAlice), 910, "The guest runs");
}

TEST_F(GuestSuspend, Save_SuspendedGuest_RunsWhenRestored) {
  ASSERT_NO_FATAL_FAILURE(StartRunning());
  EXPECT_DONE(control_->Suspend(kGuest, kAlice));
  EXPECT_DONE(control_->Save(kGuest, kAlice));
  EXPECT_EQ(State(), states::saved);
  EXPECT_DONE(control_->PowerOn(kGuest, kAlice));
  EXPECT_EQ(State(), states::running);
}

TEST_F(GuestSuspend, Restore_NothingSaved_Is911AndIsNotReasonOfShutDown) {
  Start();
  EXPECT_REFUSED(control_->Restore(kGuest, kAlice), 911, "The guest has no saved memory");
  EXPECT_EQ(State(), states::shutdown);
  EXPECT_EQ(RunOf(), std::nullopt);
  Json::Value conf;
  ASSERT_EQ(vgConfGet(kGuest, conf), 0);
  EXPECT_FALSE(conf.isMember("shutdownreasonvalue")) << conf.toStyledString();
}

TEST_F(GuestSuspend, Calls_GuestOffOrUnknown_AreRefused) {
  Start();
  for (auto refused :
       {control_->Suspend(kGuest, kAlice), control_->Resume(kGuest, kAlice), control_->Save(kGuest, kAlice)}) {
    EXPECT_REFUSED(refused, 911, "The guest does not run");
  }
  for (auto refused : {control_->Suspend(kOther, kAlice), control_->Resume(kOther, kAlice),
                       control_->Save(kOther, kAlice), control_->Restore(kOther, kAlice)}) {
    EXPECT_REFUSED(refused, 403, "");
  }
}

TEST_F(GuestSuspend, Calls_GuestOfOtherHost_Are912) {
  Start();
  RunRecord run = RunHere();
  run.host_id = "host-2";
  PutRun(run);
  for (auto refused :
       {control_->Suspend(kGuest, kAlice), control_->Resume(kGuest, kAlice), control_->Save(kGuest, kAlice)}) {
    EXPECT_REFUSED(refused, 912, "The guest belongs to the host 'host-2'");
  }
  PutGuest(kGuest, "web-1", Parsed(R"({"host_id":"host-2"})"));
  EXPECT_REFUSED(control_->Restore(kGuest, kAlice), 912, "The guest belongs to the host 'host-2'");
}

// As of a device that cannot be saved.
TEST_F(GuestSuspend, Save_LibvirtRefuses_Is901WithReasonAndGuestGoesOn) {
  ASSERT_NO_FATAL_FAILURE(StartRunning());
  test::ClearCapturedSyslog();
  {
    const test::FailingSaves failing({VIR_ERR_OPERATION_INVALID, "domain has assigned non-USB host devices"});
    EXPECT_REFUSED(
        control_->Save(kGuest, kAlice), 901,
        "Cannot save the memory of the guest " + std::string(kGuest) + ": domain has assigned non-USB host devices");
  }
  EXPECT_EQ(State(), states::running);
  ASSERT_TRUE(RunOf());
  EXPECT_FALSE(RunOf()->saved);
  EXPECT_TRUE(test::SyslogContains("Refused 'save' on guest " + std::string(kGuest) + " with code 901: Cannot save"));
  EXPECT_DONE(control_->Save(kGuest, kAlice));
}

TEST_F(GuestSuspend, SuspendOrResume_LibvirtRefuses_Is901WithReason) {
  ASSERT_NO_FATAL_FAILURE(StartRunning());
  {
    const test::FailingSuspends failing({VIR_ERR_OPERATION_FAILED, "no answer from the monitor"});
    EXPECT_REFUSED(control_->Suspend(kGuest, kAlice), 901, "Cannot suspend the guest");
    EXPECT_EQ(State(), states::running);
  }
  EXPECT_DONE(control_->Suspend(kGuest, kAlice));
  {
    const test::FailingResumes failing({VIR_ERR_OPERATION_INVALID, "lock is held by another process"});
    EXPECT_REFUSED(control_->Resume(kGuest, kAlice), 901, "lock is held by another process");
    EXPECT_EQ(State(), states::freeze);
  }
  EXPECT_DONE(control_->Resume(kGuest, kAlice));
}

TEST_F(GuestSuspend, Suspend_WhileShuttingDown_GivesUpTheShutDown) {
  Start();
  test::IgnoreButtonPresses(1'000'000);
  EXPECT_DONE(control_->PowerOn(kGuest, kAlice));
  EXPECT_DONE(control_->ShutDown(kGuest, kAlice));
  EXPECT_EQ(State(), states::shutting_down);
  EXPECT_DONE(control_->Suspend(kGuest, kAlice));
  EXPECT_EQ(State(), states::freeze);
  EXPECT_DONE(control_->Resume(kGuest, kAlice));
  EXPECT_EQ(State(), states::running);
  test::IgnoreButtonPresses(0);
  std::this_thread::sleep_for(100ms);
  EXPECT_EQ(State(), states::running) << "nobody presses its button any more";
}

// The other actions say which one is in progress.
TEST_F(GuestSuspend, OtherAction_DuringSave_IsBusy) {
  GuestControlOptions options = Options();
  std::string seen;
  options.before_step = [&](std::string_view step) {
    if (step != "save: asked") return;
    for (auto refused : {control_->Delete(kGuest, kAlice), control_->PowerOn(kGuest, kAlice),
                         control_->Edit(kGuest, Parsed(R"({"desc":"x"})"), kAlice)}) {
      EXPECT_REFUSED(refused, 915, "It has been busy with 'save' for alice since ");
    }
    seen = step;
  };
  Start(options);
  EXPECT_DONE(control_->PowerOn(kGuest, kAlice));
  EXPECT_DONE(control_->Save(kGuest, kAlice));
  EXPECT_EQ(seen, "save: asked");
}

}  // namespace
}  // namespace vexa::guests
