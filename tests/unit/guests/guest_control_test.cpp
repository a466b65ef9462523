// What a host does with its guests, on libvirt's test driver and a real store.
#include "host/guests/guest_control.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <fstream>
#include <future>
#include <mutex>
#include <thread>
#include <vector>

#include "host/guests/edit/edit.h"
#include "host/guests/jobs/guest_locks.h"
#include "host/records/live_state.h"
#include "host/records/request_scope.h"
#include "host/records/run_record.h"
#include "host/store/key.h"
#include "json/readers.h"
#include "tests/support/libvirt_faults.h"
#include "tests/support/racing_store.h"
#include "tests/support/syslog_capture.h"
#include "tests/unit/guests/guest_control_fixture.h"
#include "webapi/platform/ccc.h"
#include "webapi/platform/ccc_state.h"

namespace vexa::guests {
namespace {

TEST_F(GuestControlTest, PowerOn_GuestOff_StartsAndRecordsIt) {
  Start();
  EXPECT_DONE(control_->PowerOn(kGuest, kAlice));
  EXPECT_EQ(State(), states::running);
  const auto run = RunOf();
  ASSERT_TRUE(run);
  EXPECT_EQ(run->host_id, HostId());
  EXPECT_FALSE(run->starting);
  EXPECT_EQ(run->vcpus, 1u);
  EXPECT_EQ(run->memory_mib, 64u);
  const auto running = control_->FindRunningGuest(kGuest);
  ASSERT_TRUE(running);
  EXPECT_LT(running->uptime_s, 60u);
}

TEST_F(GuestControlTest, PowerOn_GuestRunning_Is910) {
  Start();
  EXPECT_DONE(control_->PowerOn(kGuest, kAlice));
  EXPECT_REFUSED(control_->PowerOn(kGuest, kAlice), 910, "runs");
  EXPECT_EQ(State(), states::running);
}

TEST_F(GuestControlTest, PowerOn_GuestUnknownOrDamaged_Is403) {
  Start();
  EXPECT_REFUSED(control_->PowerOn(kOther, kAlice), 403, "");
  host_.PutText("guest", kOther, "[]");
  EXPECT_REFUSED(control_->PowerOn(kOther, kAlice), 403, "");
  PutGuest(kOther, "x", Parsed(R"({"vdisks":["no-such-disk"]})"));
  EXPECT_REFUSED(control_->PowerOn(kOther, kAlice), 403, "");
}

TEST_F(GuestControlTest, PowerOn_GuestOfOtherHost_Is912) {
  PutGuest(kGuest, "web-1", Parsed(R"({"host_id":"host-2"})"));
  Start();
  EXPECT_REFUSED(control_->PowerOn(kGuest, kAlice), 912, "host-2");
  EXPECT_EQ(RunOf(), std::nullopt);
}

TEST_F(GuestControlTest, PowerOn_GuestRunsOnOtherHost_Is910) {
  RunRecord run;
  run.host_id = "host-2";
  PutRun(run);
  Start();
  EXPECT_REFUSED(control_->PowerOn(kGuest, kAlice), 910, "host-2");
  EXPECT_EQ(RunOf()->host_id, "host-2");
}

TEST_F(GuestControlTest, PowerOn_GuestBeingDeleted_Is915WithUserAndTime) {
  ASSERT_TRUE(host_.store().Commit(
      {{},
       {{records::DeletionKey(kGuest),
         R"({"host_id":"host-2","user":"bob","since":1700000000,"stage":"hiding","files":[]})"}}}));
  Start();
  EXPECT_REFUSED(control_->PowerOn(kGuest, kAlice), 915, "bob");
  EXPECT_REFUSED(control_->PowerOn(kGuest, kAlice), 915, "2023-11-14T22:13:20Z");
  EXPECT_EQ(RunOf(), std::nullopt);
}

TEST_F(GuestControlTest, PowerOn_RatingRefuses_ChangesNothing) {
  PutGuest(kGuest, "web-1", Parsed(R"({"vram_size":2000000})"));
  Start();
  EXPECT_REFUSED(control_->PowerOn(kGuest, kAlice), 928, "2000000");
  EXPECT_EQ(RunOf(), std::nullopt);
  EXPECT_EQ(State(), states::shutdown);
}

TEST_F(GuestControlTest, PowerOn_RecordInvalid_ChangesNothing) {
  PutGuest(kGuest, "web-1", Parsed(R"({"usb_version":77})"));
  Start();
  EXPECT_REFUSED(control_->PowerOn(kGuest, kAlice), 901, "usb_version");
  EXPECT_EQ(RunOf(), std::nullopt);
  EXPECT_EQ(State(), states::shutdown);
  PutGuest(kGuest, "web-1");
  EXPECT_DONE(control_->PowerOn(kGuest, kAlice));
}

// As in a request, whose reads come from one state of the store.
TEST_F(GuestControlTest, PowerOn_GuestChangedMeanwhile_IsRefused) {
  GuestControlOptions options = Options();
  options.before_step = [&](std::string_view step) {
    if (step == "poweron: reserved") PutGuest(kGuest, "web-1", Parsed(R"({"host_id":"host-2"})"));
  };
  Start(std::move(options));
  const records::RequestScope scope;
  EXPECT_EQ(State(), states::shutdown);
  EXPECT_REFUSED(control_->PowerOn(kGuest, kAlice), 915, "changed");
  EXPECT_EQ(RunOf(), std::nullopt);
  EXPECT_EQ(State(), states::shutdown);
}

TEST_F(GuestControlTest, Power_InRequest_UsesCurrentRecords) {
  Start();
  const records::RequestScope scope;
  for (int round = 0; round < 3; ++round) {
    EXPECT_DONE(control_->PowerOn(kGuest, kAlice));
    { const records::RequestPause pause; }
    EXPECT_EQ(State(), states::running);
    EXPECT_DONE(control_->PowerOff(kGuest, kAlice));
    { const records::RequestPause pause; }
    EXPECT_EQ(State(), states::shutdown);
    EXPECT_EQ(RunOf(), std::nullopt);
  }
}

TEST_F(GuestControlTest, PowerOn_CountsOtherGuestsResources) {
  StartWithLargeGuest();
  EXPECT_DONE(control_->PowerOn(kGuest, kAlice));
  EXPECT_REFUSED(control_->PowerOn(kOther, kAlice), 927, "");
  EXPECT_DONE(control_->PowerOff(kGuest, kAlice));
  EXPECT_DONE(control_->PowerOn(kOther, kAlice));
}

TEST_F(GuestControlTest, PowerOn_PinnedGuest_DedicatesProcessors) {
  if (std::thread::hardware_concurrency() < 2) GTEST_SKIP() << "needs two processors";
  PutGuest(kGuest, "web-1", Parsed(R"({"cpu_pin_num":1})"));
  Start();
  EXPECT_DONE(control_->PowerOn(kGuest, kAlice));
  EXPECT_EQ(RunOf()->pinned_cpus.size(), 1u);
}

TEST_F(GuestControlTest, PowerOn_NetworkMissing_Is917) {
  host_.Put("vnic", "nic-1", Parsed(R"({"guest_id":"x","network_name":"br-lab","mac_address":"02:00:00:00:00:01",
      "vnic_type":1})"));
  PutGuest(kGuest, "web-1", Parsed(R"({"vnics":["nic-1"]})"));
  GuestControlOptions options = Options();
  options.has_network = [](const std::string& name) { return name != "br-lab"; };
  Start(std::move(options));
  EXPECT_REFUSED(control_->PowerOn(kGuest, kAlice), 917, "br-lab");
}

TEST_F(GuestControlTest, PowerOff_GuestRunning_EndsItAndRemovesRun) {
  Start();
  EXPECT_DONE(control_->PowerOn(kGuest, kAlice));
  EXPECT_DONE(control_->PowerOff(kGuest, kAlice));
  EXPECT_EQ(State(), states::shutdown);
  EXPECT_EQ(RunOf(), std::nullopt);
  EXPECT_FALSE(control_->FindRunningGuest(kGuest));
}

TEST_F(GuestControlTest, StopActions_GuestOff_Are911) {
  Start();
  EXPECT_REFUSED(control_->PowerOff(kGuest, kAlice), 911, "");
  EXPECT_REFUSED(control_->ShutDown(kGuest, kAlice), 911, "");
  EXPECT_REFUSED(control_->Reboot(kGuest, kAlice), 911, "");
  EXPECT_REFUSED(control_->PowerOff(kOther, kAlice), 403, "");
}

TEST_F(GuestControlTest, ShutDown_GuestRunning_EndsIt) {
  Start();
  EXPECT_DONE(control_->PowerOn(kGuest, kAlice));
  EXPECT_DONE(control_->ShutDown(kGuest, kAlice));
  ExpectState(states::shutdown);
}

TEST_F(GuestControlTest, Reboot_GuestRunning_KeepsItRunning) {
  Start();
  EXPECT_DONE(control_->PowerOn(kGuest, kAlice));
  EXPECT_DONE(control_->Reboot(kGuest, kAlice));
  EXPECT_EQ(State(), states::running);
  EXPECT_TRUE(RunOf());
}

TEST_F(GuestControlTest, Fence_GuestRunningOrOff_Succeeds) {
  Start();
  EXPECT_DONE(control_->Fence(kGuest));
  EXPECT_DONE(control_->Fence(kOther));
  EXPECT_DONE(control_->PowerOn(kGuest, kAlice));
  PutGuest(kGuest, "web-1", Parsed(R"({"host_id":"host-2"})"));
  EXPECT_DONE(control_->Fence(kGuest));
  ExpectNoRun();
}

TEST_F(GuestControlTest, Fence_DuringStart_CancelsIt) {
  std::promise<void> defined;
  std::promise<void> fenced;
  GuestControlOptions options = Options();
  options.before_step = [&](std::string_view step) {
    if (step == "end: start cancelled") fenced.set_value();
    if (step != "poweron: defined") return;
    defined.set_value();
    EXPECT_EQ(fenced.get_future().wait_for(20s), std::future_status::ready);
  };
  Start(std::move(options));
  std::thread start([&] { EXPECT_REFUSED(control_->PowerOn(kGuest, kAlice), 915, "powered off"); });
  defined.get_future().wait();
  EXPECT_DONE(control_->Fence(kGuest));
  EXPECT_FALSE(control_->FindRunningGuest(kGuest));
  start.join();
  EXPECT_EQ(RunOf(), std::nullopt);
  EXPECT_EQ(State(), states::shutdown);
}

TEST_F(GuestControlTest, Fence_StartHangs_Is949) {
  std::promise<void> defined;
  std::promise<void> go_on;
  GuestControlOptions options = Options();
  options.fence_wait = 20ms;
  options.before_step = [&](std::string_view step) {
    if (step != "poweron: asked") return;
    defined.set_value();
    go_on.get_future().wait();
  };
  Start(std::move(options));
  std::thread start([&] { EXPECT_DONE(control_->PowerOn(kGuest, kAlice)); });
  defined.get_future().wait();
  EXPECT_REFUSED(control_->Fence(kGuest), 949, "being started");
  go_on.set_value();
  start.join();
}

// Definitions that the hypervisor loses are restored, also while an action on the guest runs.
TEST_F(GuestControlTest, LostConnection_DuringAction_GuestIsRestored) {
  bool is_armed = true;
  GuestControlOptions options = Options();
  options.before_step = [&](std::string_view step) {
    if (step != "shutdown: asked" || !std::exchange(is_armed, false)) return;
    test::CloseLastConnection();
    const auto is_lost = [&] {
      const Result<Rating> rating = control_->RateGuest(kOther);
      return !rating || !rating->refusals.empty();
    };
    const auto end = std::chrono::steady_clock::now() + 20s;
    while (is_lost() && std::chrono::steady_clock::now() < end) std::this_thread::sleep_for(2ms);
  };
  PutGuest(kOther, "web-2");
  Start(std::move(options));
  EXPECT_DONE(control_->PowerOn(kGuest, kAlice));
  EXPECT_REFUSED(control_->ShutDown(kGuest, kAlice), 911, "");
  EXPECT_FALSE(is_armed);
  ExpectState(states::running);
  EXPECT_TRUE(RunOf());
  EXPECT_DONE(control_->PowerOff(kGuest, kAlice));
}

TEST_F(GuestControlTest, GuestOff_StateNotStored_StaysOff) {
  std::atomic<bool> is_off = false;
  GuestControlOptions options = Options();
  options.maintenance_interval = 20ms;
  options.before_step = [&](std::string_view step) {
    if (step != "poweroff: done") return;
    is_off = true;
    host_.store().FailCommits();
  };
  Start(std::move(options));
  EXPECT_DONE(control_->PowerOn(kGuest, kAlice));
  EXPECT_DONE(control_->PowerOff(kGuest, kAlice));
  EXPECT_TRUE(is_off);
  EXPECT_EQ(State(), states::running);
  host_.store().Heal();
  ExpectState(states::shutdown);
  control_.reset();
  EXPECT_EQ(RunOf(), std::nullopt);
}

TEST_F(GuestControlTest, Maintenance_EndWithoutEvent_IsDetected) {
  GuestControlOptions options = Options();
  options.maintenance_interval = 20ms;
  Start(std::move(options));
  PutRun(RunHere());
  ExpectNoRun();
}

TEST_F(GuestControlTest, Reconcile_GuestRunsHereUnderAnotherHostsRun_IsLoggedAndLeavesTheRun) {
  test::ClearCapturedSyslog();
  Start();
  EXPECT_DONE(control_->PowerOn(kGuest, kAlice));
  RunRecord run = *RunOf();
  run.host_id = "host-2";
  PutRun(run);
  const test::FailingStops stops({VIR_ERR_OPERATION_FAILED, "it does not stop"});
  EXPECT_FALSE(control_->Fence(kGuest));  // reconciles the guest, which still runs
  EXPECT_TRUE(test::SyslogContains(std::string("The guest ") + kGuest +
                                   " could not be reconciled. This is retried: It runs here, but its run record names "
                                   "the host 'host-2'"));
  EXPECT_EQ(RunOf()->host_id, "host-2");
}

TEST_F(GuestControlTest, SetHost_GuestOff_ChangesRecordOnly) {
  Start();
  EXPECT_DONE(control_->SetHost(kGuest, "host-2"));
  std::string host_id;
  EXPECT_EQ(vgConfHostGet(kGuest, host_id), 0);
  EXPECT_EQ(host_id, "host-2");
  Json::Value conf;
  EXPECT_EQ(vgConfGet(kGuest, conf), 0);
  EXPECT_EQ(conf["name"], "web-1");
}

TEST_F(GuestControlTest, SetHost_NotPossible_IsRefused) {
  Start();
  EXPECT_REFUSED(control_->SetHost(kGuest, "no-such-host"), 403, "no-such-host");
  EXPECT_REFUSED(control_->SetHost(kOther, "host-2"), 403, "");
  EXPECT_DONE(control_->PowerOn(kGuest, kAlice));
  EXPECT_REFUSED(control_->SetHost(kGuest, "host-2"), 910, HostId());
}

TEST_F(GuestControlTest, SetHost_GuestStartedMeanwhile_IsRefusedByWhatThePlanHasRead) {
  const auto store = std::make_shared<test::RacingStore>(host_.store());
  GuestControlOptions options = Options();
  options.store = store;
  Start(std::move(options));
  store->SetBeforeCommit([this] {
    RunRecord run = RunHere();
    run.host_id = "host-2";
    PutRun(run);
  });
  (void)host_.store().TakeSnapshotUse();
  EXPECT_REFUSED(control_->SetHost(kGuest, "host-2"), 910, "The guest may be running on the host 'host-2'");
  EXPECT_EQ(host_.store().TakeSnapshotUse(), (test::SnapshotUse{3, 0, 0})) << "a check, and two plans";
}

TEST_F(GuestControlTest, SecondAction_DuringFirst_IsBusyWithUserAndTime) {
  std::mutex mutex;
  std::condition_variable changed;
  bool reached = false;
  bool go_on = false;
  GuestControlOptions options = Options();
  options.before_step = [&](std::string_view step) {
    if (step != "poweron: defined") return;
    std::unique_lock lock(mutex);
    reached = true;
    changed.notify_all();
    changed.wait(lock, [&] { return go_on; });
  };
  PutGuest(kOther, "web-2");
  Start(std::move(options));
  std::thread first([&] { EXPECT_DONE(control_->PowerOn(kGuest, kAlice)); });
  {
    std::unique_lock lock(mutex);
    changed.wait(lock, [&] { return reached; });
  }
  for (const char* words : {"alice", "poweron", "since 20"}) {
    EXPECT_REFUSED(control_->ShutDown(kGuest, {"bob", "nas-2", ""}), 915, words);
  }
  EXPECT_REFUSED(control_->PowerOn(kGuest, kAlice), 915, "busy");
  EXPECT_REFUSED(control_->Delete(kGuest, kAlice), 915, "busy");
  EXPECT_REFUSED(control_->Reboot(kGuest, kAlice), 915, "busy");
  EXPECT_REFUSED(control_->ShutDown(kGuest, kAlice), 915, "busy");
  EXPECT_REFUSED(control_->SetHost(kGuest, "host-2"), 910, "");
  // Others are not kept waiting.
  EXPECT_REFUSED(control_->PowerOff(kOther, kAlice), 911, "");
  {
    const std::lock_guard lock(mutex);
    go_on = true;
  }
  changed.notify_all();
  first.join();
  EXPECT_EQ(State(), states::running);
  EXPECT_DONE(control_->PowerOff(kGuest, kAlice));
}

// A power-off waits for nothing: what is being done may hang with the guest.
TEST_F(GuestControlTest, PowerOff_DuringHangingStart_CancelsIt) {
  std::promise<void> defined;
  std::promise<void> go_on;
  GuestControlOptions options = Options();
  options.before_step = [&](std::string_view step) {
    if (step == "end: start cancelled") go_on.set_value();
    if (step != "poweron: defined") return;
    defined.set_value();
    go_on.get_future().wait();
  };
  Start(std::move(options));
  std::thread start([&] { EXPECT_REFUSED(control_->PowerOn(kGuest, kAlice), 915, "powered off"); });
  defined.get_future().wait();
  std::thread power_off([&] { EXPECT_REFUSED(control_->PowerOff(kGuest, kAlice), 911, ""); });
  start.join();
  power_off.join();
  EXPECT_EQ(State(), states::shutdown);
  ExpectNoRun();
}

TEST_F(GuestControlTest, PowerOff_DuringHangingShutDown_EndsGuest) {
  std::promise<void> asked;
  std::promise<void> go_on;
  GuestControlOptions options = Options();
  options.before_step = [&](std::string_view step) {
    if (step != "shutdown: asked") return;
    asked.set_value();
    go_on.get_future().wait();
  };
  Start(std::move(options));
  EXPECT_DONE(control_->PowerOn(kGuest, kAlice));
  std::thread shut_down([&] { EXPECT_REFUSED(control_->ShutDown(kGuest, kAlice), 911, ""); });
  asked.get_future().wait();
  EXPECT_DONE(control_->PowerOff(kGuest, kAlice));
  go_on.set_value();
  shut_down.join();
  ExpectState(states::shutdown);
  ExpectNoRun();
}

// The first edit stops before its commit until the second has been answered or has had time to begin to wait.
TEST_F(GuestControlTest, SecondEdit_FirstEnds_WaitsAndBothAreApplied) {
  std::promise<void> reached;
  std::promise<void> go_on;
  std::atomic<bool> is_first = true;
  GuestControlOptions options = Options();
  options.edit_wait = 20s;
  options.before_step = [&](std::string_view step) {
    if (step != "commit" || !is_first.exchange(false)) return;
    reached.set_value();
    go_on.get_future().wait();
  };
  Start(std::move(options));
  std::thread first([&] { EXPECT_DONE(control_->Edit(kGuest, Parsed(R"({"vcpu_num":3})"), kAlice)); });
  reached.get_future().wait();
  std::atomic<bool> is_answered = false;
  std::thread second([&] {
    EXPECT_DONE(control_->Edit(kGuest, Parsed(R"({"vram_size":96})"), {"bob", "nas-2", ""}));
    is_answered = true;
  });
  std::this_thread::sleep_for(50ms);
  EXPECT_FALSE(is_answered) << "it waits";
  // Other operations do not wait.
  EXPECT_REFUSED(control_->PowerOn(kGuest, kAlice), 915, "'edit' for alice");
  go_on.set_value();
  first.join();
  second.join();
  Json::Value conf;
  EXPECT_EQ(vgConfGet(kGuest, conf), 0);
  EXPECT_EQ(conf["vcpu_num"], 3);
  EXPECT_EQ(conf["vram_size"], 96);
}

TEST_F(GuestControlTest, SecondEdit_FirstDoesNotEnd_IsRefusedAsBusy) {
  std::promise<void> reached;
  std::promise<void> go_on;
  GuestControlOptions options = Options();
  options.edit_wait = 20ms;
  options.before_step = [&](std::string_view step) {
    if (step != "commit") return;
    reached.set_value();
    go_on.get_future().wait();
  };
  Start(std::move(options));
  std::thread first([&] { EXPECT_DONE(control_->Edit(kGuest, Parsed(R"({"vcpu_num":3})"), kAlice)); });
  reached.get_future().wait();
  EXPECT_REFUSED(control_->Edit(kGuest, Parsed(R"({"vram_size":96})"), {"bob", "nas-2", ""}), 915, "'edit' for alice");
  go_on.set_value();
  first.join();
}

TEST_F(GuestControlTest, Actions_Concurrent_EqualSequential) {
  Start();
  std::vector<std::thread> threads;
  for (int i = 0; i < 8; ++i) {
    threads.emplace_back([&, i] {
      for (int round = 0; round < 20; ++round) {
        const auto refused = (i + round) % 3 == 0   ? control_->PowerOn(kGuest, kAlice)
                             : (i + round) % 3 == 1 ? control_->PowerOff(kGuest, kAlice)
                                                    : control_->ShutDown(kGuest, kAlice);
        EXPECT_THAT(!refused.ok() ? refused.error().code : 0, ::testing::AnyOf(0, 910, 911, 915));
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  const auto ended = control_->PowerOff(kGuest, kAlice);
  EXPECT_THAT(!ended.ok() ? ended.error().code : 0, ::testing::AnyOf(0, 911));
  ExpectState(states::shutdown);
  ExpectNoRun();
}

TEST_F(GuestControlTest, Start_GuestThatWasRunning_IsRestarted) {
  Start();
  EXPECT_DONE(control_->PowerOn(kGuest, kAlice));
  Kill();
  EXPECT_EQ(State(), states::running);
  Start();
  EXPECT_EQ(State(), states::running);
  EXPECT_DONE(control_->PowerOff(kGuest, kAlice));
}

TEST_F(GuestControlTest, ServiceStart_UnfinishedPowerOn_IsUndone) {
  RunRecord run = RunHere();
  run.starting = true;
  PutRun(run);
  Start();
  EXPECT_EQ(RunOf(), std::nullopt);
  EXPECT_EQ(State(), states::shutdown);
  EXPECT_DONE(control_->PowerOn(kGuest, kAlice));
}

TEST_F(GuestControlTest, Start_GuestThatCannotBeRestarted_IsRecordedAsShutDown) {
  PutRun(RunHere());
  host_.PutText("guest", kGuest, "{}");
  Start();
  EXPECT_EQ(RunOf(), std::nullopt);
}

TEST_F(GuestControlTest, ServiceStart_OtherHostsGuests_AreUnchanged) {
  RunRecord run = RunHere();
  run.host_id = "host-2";
  PutRun(run);
  Start();
  EXPECT_EQ(RunOf()->host_id, "host-2");
}

TEST_F(GuestControlTest, Start_RecordWasRemoved_CleansUp) {
  PutRun(RunHere());
  host_.Remove("guest", kGuest);
  Start();
  EXPECT_EQ(RunOf(), std::nullopt);
}

TEST_F(GuestControlTest, ServiceStop_GuestRunning_KeepsItAndRefusesActions) {
  Start();
  EXPECT_DONE(control_->PowerOn(kGuest, kAlice));
  control_->Stop(0ms);
  EXPECT_REFUSED(control_->PowerOff(kGuest, kAlice), 949, "stopping");
  EXPECT_EQ(State(), states::running);
}

// Every commit of an action fails in turn, as on a full disk; the next start finds out what holds.
TEST_F(GuestControlTest, FullDisk_AtEachStep_LeavesNothingHalfMade) {
  const std::vector<std::string> steps{
      "poweron: reserved",           "poweron: defined",        "poweron: started",
      "reconcile: running recorded", "poweroff: asked",         "poweroff: done",
      "reconcile: undefined",        "reconcile: state stored", "reconcile: off recorded"};
  for (const std::string& full_at : steps) {
    SCOPED_TRACE(full_at);
    bool is_full = false;
    GuestControlOptions options = Options();
    options.before_step = [&](std::string_view step) {
      if (step != full_at || is_full) return;
      is_full = true;
      host_.store().FailCommits();
    };
    Start(std::move(options));
    (void)control_->PowerOn(kGuest, kAlice);
    (void)control_->PowerOff(kGuest, kAlice);
    EXPECT_TRUE(is_full) << "the step was never made";
    host_.store().Heal();
    Kill();
    Start();
    const bool is_running = State() == states::running;
    EXPECT_EQ(RunOf().has_value(), is_running);
    const auto again = control_->PowerOn(kGuest, kAlice);
    EXPECT_EQ(!again.ok() ? again.error().code : 0, is_running ? 910 : 0);
    EXPECT_DONE(control_->PowerOff(kGuest, kAlice));
    EXPECT_EQ(State(), states::shutdown);
    ExpectNoRun();
    Kill();
  }
}

TEST_F(GuestControlTest, PowerOn_StoreReadOnly_StartsNothing) {
  Start();
  host_.store().FailCommits();
  EXPECT_REFUSED(control_->PowerOn(kGuest, kAlice), 901, "");
  host_.store().Heal();
  EXPECT_EQ(RunOf(), std::nullopt);
  EXPECT_DONE(control_->PowerOn(kGuest, kAlice));
  host_.store().FailSnapshots();
  EXPECT_FALSE(control_->PowerOff(kGuest, kAlice).ok());
  host_.store().Heal();
  EXPECT_EQ(State(), states::running);
}

TEST_F(GuestControlTest, Delete_GuestRunning_Is910) {
  Start();
  EXPECT_DONE(control_->PowerOn(kGuest, kAlice));
  EXPECT_REFUSED(control_->Delete(kGuest, kAlice), 910, HostId());
  EXPECT_EQ(State(), states::running);
}

TEST_F(GuestControlTest, Delete_RemovesGuestAndState) {
  Start();
  EXPECT_DONE(control_->PowerOn(kGuest, kAlice));
  EXPECT_DONE(control_->PowerOff(kGuest, kAlice));
  EXPECT_DONE(control_->Delete(kGuest, kAlice));
  EXPECT_EQ(State(), "");
  EXPECT_REFUSED(control_->PowerOn(kGuest, kAlice), 403, "");
}

TEST_F(GuestControlTest, Options_Invalid_AreRefused) {
  GuestControlOptions options = Options();
  options.hypervisor.mode = "no such thing";
  EXPECT_FALSE(GuestControl::Start(std::move(options)));
}

std::string PendingOf(GuestControl& control, const std::string& id) {
  const auto pending = control.Pending(id);
  return pending.ok() ? VexaVirtualization::json::ToText(domain_xml::ToJson(*pending)) : pending.error().reason;
}

TEST_F(GuestControlTest, Edit_GuestRunning_IsPendingUntilNextPowerOn) {
  Start();
  ASSERT_TRUE(control_->PowerOn(kGuest, kAlice).ok());
  ASSERT_TRUE(control_->Edit(kGuest, Parsed(R"({"vram_size":96})"), kAlice).ok());
  const auto record = [&] { return Parsed(*StoredGuest()); };
  EXPECT_EQ(record()["vram_size"], 96);
  EXPECT_EQ(PendingOf(*control_, kGuest), R"([{"property":"vram_size","recorded":96,"running":64}])");
  ASSERT_TRUE(control_->PowerOff(kGuest, kAlice).ok());
  ASSERT_TRUE(control_->PowerOn(kGuest, kAlice).ok());
  EXPECT_EQ(PendingOf(*control_, kGuest), "[]");
  ASSERT_TRUE(RunOf());
  EXPECT_EQ(RunOf()->memory_mib, 96u);
  // More processors than the host has cannot be set apart.
  const auto refused = control_->Edit(kGuest, Parsed(R"({"vcpu_num":512,"cpu_pin_num":512})"), kAlice);
  ASSERT_FALSE(refused.ok());
  EXPECT_EQ(refused.error().code, kNotPinned);
}

TEST_F(GuestControlTest, Rename_RunningGuest_FreesOldName) {
  PutGuest(kOther, "db-1");
  Start();
  EXPECT_DONE(control_->PowerOn(kGuest, kAlice));
  EXPECT_DONE(control_->Edit(kGuest, Parsed(R"({"name":"web-2"})"), kAlice));
  EXPECT_DONE(control_->Edit(kOther, Parsed(R"({"name":"web-1"})"), kAlice));
  // The running domain of the first guest is still called "web-1".
  EXPECT_DONE(control_->PowerOn(kOther, kAlice));
  EXPECT_DONE(control_->PowerOff(kGuest, kAlice));
  EXPECT_DONE(control_->PowerOff(kOther, kAlice));
  EXPECT_DONE(control_->PowerOn(kOther, kAlice));
  EXPECT_DONE(control_->PowerOn(kGuest, kAlice));
}

// The store is full for a moment, right when an edit has done all but take back its record.
TEST_F(GuestControlTest, Maintenance_UnfinishedEdit_IsFinished) {
  Json::Value changes(Json::objectValue);
  changes["repository_id"] = "repository";
  PutGuest(kGuest, "web-1", changes);
  GuestControlOptions options = Options();
  options.maintenance_interval = 5ms;
  std::atomic<bool> fails = true;
  options.before_step = [&](std::string_view step) {
    if (step == "commit end" && fails.exchange(false)) host_.store().FailCommits();
  };
  Start(options);
  EXPECT_DONE(control_->Edit(kGuest, Parsed(R"({"vdisks_add":[{"vdisk_size":1}]})"), kAlice));
  EXPECT_FALSE(fails);
  host_.store().Heal();
  const auto end = std::chrono::steady_clock::now() + 20s;
  const auto is_free = [&] { return CheckNoUnfinishedJob(host_.store(), kGuest).ok(); };
  while (!is_free() && std::chrono::steady_clock::now() < end) std::this_thread::sleep_for(2ms);
  EXPECT_TRUE(is_free());
  EXPECT_DONE(control_->PowerOn(kGuest, kAlice));
}

TEST_F(GuestControlTest, DiskEdit_InProgress_PreventsStartAndMove) {
  Start();
  const std::string edit =
      R"({"host_id":"nas-2","user":"bob","since":0,"stage":"doing","made":[],"hidden":[],"grown":[]})";
  ASSERT_TRUE(host_.store().Commit({{}, {{records::EditKey(kGuest), edit}}}));
  for (const Result<void, Refusal>& refused :
       {control_->PowerOn(kGuest, kAlice), control_->SetHost(kGuest, "host-2")}) {
    ASSERT_FALSE(refused.ok());
    EXPECT_EQ(refused.error().code, host_error::kBusy);
    EXPECT_THAT(refused.error().reason, HasSubstr("being edited (started by 'bob' at "));
  }
}

// It was found running while another host makes files for its disks: what the edit compared must stay true.
TEST_F(GuestControlTest, DiskEdit_GuestFoundRunning_IsNotAdopted) {
  GuestControlOptions options = Options();
  options.maintenance_interval = 5ms;
  std::atomic<int> looks = 0;
  options.before_step = [&](std::string_view step) {
    if (step == "reconcile: running recorded") ++looks;
  };
  Start(std::move(options));
  EXPECT_DONE(control_->PowerOn(kGuest, kAlice));
  const std::string edit =
      R"({"host_id":"nas-2","user":"bob","since":0,"stage":"doing","made":[],"hidden":[],"grown":[]})";
  ASSERT_TRUE(host_.store().Commit({{}, {{records::RunKey(kGuest), std::nullopt}, {records::EditKey(kGuest), edit}}}));
  const auto await = [](const auto& condition) {
    const auto end = std::chrono::steady_clock::now() + 20s;
    while (!condition() && std::chrono::steady_clock::now() < end) std::this_thread::sleep_for(2ms);
    return condition();
  };
  looks = 0;
  PutGuest(kGuest, "web-2");  // a guest whose record changes is looked at, and again until that succeeds
  ASSERT_TRUE(await([&] { return looks >= 2; }));
  EXPECT_EQ(RunOf(), std::nullopt);
  ASSERT_TRUE(host_.store().Commit({{}, {{records::EditKey(kGuest), std::nullopt}}}));
  EXPECT_TRUE(await([&] { return RunOf().has_value(); }));
}

}  // namespace
}  // namespace vexa::guests
