// Why guests are off, and the states during a start and after a failed one.
#include <set>
#include <vector>

#include "host/records/live_state.h"
#include "host/records/shutdown_reason.h"
#include "tests/support/libvirt_faults.h"
#include "tests/unit/guests/guest_control_fixture.h"

namespace vexa::guests {
namespace {

using records::ShutdownCause;
using records::ShutdownReason;
constexpr char kRepository[] = "5f0e6c1a-9b1d-4a52-8b76-2f3c8f6e7d10";

class GuestEnd : public GuestControlTest {
 protected:
  static std::optional<ShutdownReason> Reason(const std::string& id = kGuest) {
    return test::Require(records::ReadShutdown(test::Require(records::Reader::OpenCurrent()), id));
  }
  // With an end that comes as an event.
  static void ExpectReason(ShutdownCause cause, bool is_forced) {
    const ShutdownReason expected{cause, is_forced};
    const auto end = std::chrono::steady_clock::now() + 20s;
    while (Reason() != expected && std::chrono::steady_clock::now() < end) std::this_thread::sleep_for(2ms);
    ASSERT_TRUE(Reason());
    EXPECT_EQ(records::ShutdownCauseName(Reason()->cause), records::ShutdownCauseName(cause));
    EXPECT_EQ(Reason()->is_forced, is_forced);
  }
  void PutRepository(const char* state) {
    Json::Value record = Parsed(R"({"name":"pool"})");
    record["host_id"] = HostId();
    record["state"] = state;
    host_.Put("repository", kRepository, record);
  }
  void PutLive(const char* state) {
    ASSERT_TRUE(host_.store().Commit({{}, {{records::LiveStateKey(kGuest), '"' + std::string(state) + '"'}}}));
  }
};

TEST_F(GuestEnd, EndReason_ShutDownByUser_IsStored) {
  Start();
  EXPECT_DONE(control_->PowerOn(kGuest, kAlice));
  EXPECT_EQ(Reason(), std::nullopt);
  EXPECT_DONE(control_->ShutDown(kGuest, kAlice));
  ExpectState(states::shutdown);
  ExpectReason(ShutdownCause::kShutDown, false);
}

TEST_F(GuestEnd, EndReason_PoweredOffByUser_IsKeptUntilNextRun) {
  Start();
  EXPECT_DONE(control_->PowerOn(kGuest, kAlice));
  EXPECT_DONE(control_->PowerOff(kGuest, kAlice));
  ExpectReason(ShutdownCause::kPoweredOff, true);
  Json::Value conf;
  ASSERT_EQ(vgConfGet(kGuest, conf), 0);
  EXPECT_EQ(conf["shutdownreasonvalue"], 3);
  EXPECT_EQ(conf["is_forced_shutdown"], true);
  EXPECT_DONE(control_->PowerOn(kGuest, kAlice));
  EXPECT_EQ(Reason(), std::nullopt);
}

TEST_F(GuestEnd, EndReason_ShutDownFromInside_IsStored) {
  Start();
  EXPECT_DONE(control_->PowerOn(kGuest, kAlice));
  ASSERT_TRUE(test::DestroyAsUser(kGuest));
  ExpectState(states::shutdown);
  ExpectReason(ShutdownCause::kByGuest, false);
}

TEST_F(GuestEnd, EndReason_Crash_IsShownAsCrashed) {
  Start();
  EXPECT_DONE(control_->PowerOn(kGuest, kAlice));
  const test::FakeStateReason crashed(VIR_DOMAIN_SHUTOFF, VIR_DOMAIN_SHUTOFF_CRASHED);
  ASSERT_TRUE(test::DestroyAsUser(kGuest));
  ExpectState(states::crashed);
  ExpectReason(ShutdownCause::kCrashed, true);
}

TEST_F(GuestEnd, EndReason_Fenced_IsStored) {
  Start();
  EXPECT_DONE(control_->PowerOn(kGuest, kAlice));
  EXPECT_DONE(control_->Fence(kGuest));
  ExpectState(states::shutdown);
  ExpectReason(ShutdownCause::kFenced, true);
}

TEST_F(GuestEnd, EndReason_EndNotObserved_IsUnknown) {
  PutRun(RunHere());
  PutLive(states::freeze);
  PutGuest(kGuest, "web-1", Parsed(R"({"usb_version":77})"));  // it cannot be started again
  Start();
  EXPECT_EQ(State(), states::shutdown);
  ExpectReason(ShutdownCause::kUnknown, false);
}

TEST_F(GuestEnd, ShutDown_Ignored_IsNotReasonOfLaterEnd) {
  GuestControlOptions options = Options();
  options.shut_down_wait = 50ms;
  Start(std::move(options));
  EXPECT_DONE(control_->PowerOn(kGuest, kAlice));
  test::IgnoreButtonPresses(1000);
  EXPECT_DONE(control_->ShutDown(kGuest, kAlice));
  ExpectState(states::shutting_down);
  ExpectState(states::running);
  test::IgnoreButtonPresses(0);
  ASSERT_TRUE(test::DestroyAsUser(kGuest));
  ExpectState(states::shutdown);
  ExpectReason(ShutdownCause::kByGuest, false);
}

struct StorageRow {
  const char* repository;
  ShutdownCause cause;
};

TEST_F(GuestEnd, EndReason_PausedOnIoErrorThenPoweredOff_IsStorage) {
  namespace repository = VexaCCC::State::Repo;
  const StorageRow rows[] = {{repository::full, ShutdownCause::kRepositoryFull},
                             {repository::unavailable, ShutdownCause::kStorageUnavailable},
                             {repository::crashed, ShutdownCause::kStorageCrashed},
                             {repository::degraded, ShutdownCause::kStorageReadOnly},
                             {repository::inaccessible, ShutdownCause::kStorageInaccessible},
                             {repository::online, ShutdownCause::kPoweredOff}};
  PutGuest(kGuest, "web-1", Parsed(R"({"repository_id":"5f0e6c1a-9b1d-4a52-8b76-2f3c8f6e7d10"})"));
  Start();
  for (const StorageRow& row : rows) {
    PutRepository(repository::online);
    EXPECT_DONE(control_->PowerOn(kGuest, kAlice));
    PutRepository(row.repository);
    const test::FakeStateReason stopped(VIR_DOMAIN_PAUSED, VIR_DOMAIN_PAUSED_IOERROR);
    ASSERT_TRUE(test::PauseAsUser(kGuest));
    ExpectState(states::freeze);
    EXPECT_DONE(control_->PowerOff(kGuest, kAlice));
    ExpectReason(row.cause, true);
  }
  // A machine that a user has paused.
  PutRepository(repository::online);
  EXPECT_DONE(control_->PowerOn(kGuest, kAlice));
  PutRepository(repository::full);
  ASSERT_TRUE(test::PauseAsUser(kGuest));
  EXPECT_DONE(control_->PowerOff(kGuest, kAlice));
  ExpectReason(ShutdownCause::kPoweredOff, true);
}

TEST_F(GuestEnd, PowerOn_UntilDomainRuns_IsBooting) {
  std::set<std::string> seen;
  GuestControlOptions options = Options();
  options.before_step = [&](std::string_view step) {
    if (step.starts_with("poweron: ") && step != "poweron: reserved") seen.insert(State());
  };
  Start(std::move(options));
  EXPECT_DONE(control_->PowerOn(kGuest, kAlice));
  EXPECT_EQ(seen, std::set<std::string>{states::booting});
  EXPECT_EQ(State(), states::running);
}

TEST_F(GuestEnd, PowerOn_LibvirtRefuses_KeepsStateAndStoresReason) {
  GuestControlOptions options = Options();
  options.maintenance_interval = 100ms;
  Start(std::move(options));
  for (const char* before : {states::shutdown, states::crashed}) {
    PutLive(before);
    {
      const test::FailingStarts failing({VIR_ERR_INTERNAL_ERROR, "qemu said no"});
      EXPECT_REFUSED(control_->PowerOn(kGuest, kAlice), 901, "qemu said no");
    }
    EXPECT_EQ(State(), before);
    ExpectReason(ShutdownCause::kBootRefused, false);
    ExpectNoRun();
    EXPECT_EQ(State(), before);
  }
}

TEST_F(GuestEnd, PowerOn_RatingRefuses_StoresReason) {
  const auto start = [&](const char* changes, int code, const char* words, ShutdownCause cause) {
    PutGuest(kGuest, "web-1", Parsed(changes));
    EXPECT_REFUSED(control_->PowerOn(kGuest, kAlice), code, words);
    EXPECT_EQ(State(), states::shutdown);
    ExpectReason(cause, false);
  };
  PutRepository(VexaCCC::State::Repo::full);
  host_.Put("vnic", "n1", Parsed(R"({"network_name":"away","mac_address":"02:00:00:00:00:01","vnic_type":1})"));
  GuestControlOptions options = Options();
  options.has_network = [](const std::string&) { return false; };
  Start(std::move(options));
  start(R"({"vram_size":2000000})", 928, "2000000", ShutdownCause::kNoResources);
  start(R"({"vcpu_num":500})", 927, "500", ShutdownCause::kNoResources);
  start(R"({"vnics":["n1"]})", 917, "away", ShutdownCause::kBootNoNetwork);
  start(R"({"repository_id":"5f0e6c1a-9b1d-4a52-8b76-2f3c8f6e7d10"})", 949,
        "is full: remove files or disks that are no longer needed", ShutdownCause::kBootNoStorage);
  start(R"({"usb_version":77})", 901, "usb_version", ShutdownCause::kBootRefused);
  start(R"({"vdisks":["none"]})", 403, "none", ShutdownCause::kBootFailed);
}

TEST_F(GuestEnd, PowerOn_RunningOrElsewhere_StoresNoFailedBoot) {
  Start();
  EXPECT_DONE(control_->PowerOn(kGuest, kAlice));
  EXPECT_REFUSED(control_->PowerOn(kGuest, kAlice), 910, "");
  EXPECT_EQ(State(), states::running);
  EXPECT_EQ(Reason(), std::nullopt);
  PutGuest(kOther, "db-1", Parsed(R"({"host_id":"host-2"})"));
  EXPECT_REFUSED(control_->PowerOn(kOther, kAlice), 912, "");
  EXPECT_EQ(Reason(kOther), std::nullopt);
}

// What a kill leaves in the middle of a start.
TEST_F(GuestEnd, ServiceStart_BootingGuest_RestoresEarlierState) {
  RunRecord run = RunHere();
  run.starting = true;
  run.state_before = states::crashed;
  PutRun(run);
  PutLive(states::booting);
  Start();
  EXPECT_EQ(State(), states::crashed);
  EXPECT_EQ(RunOf(), std::nullopt);
}

// What a kill leaves between the end that is stored and the run that is to go.
TEST_F(GuestEnd, ObserveEnd_AlreadyStored_KeepsStateAndReason) {
  PutRun(RunHere());
  PutLive(states::crashed);
  ASSERT_TRUE(
      host_.store().Commit({{}, {{records::LiveRecordKey(kGuest), R"({"shutdown":{"value":4,"forced":true}})"}}}));
  Start();
  EXPECT_EQ(RunOf(), std::nullopt);
  EXPECT_EQ(State(), states::crashed);
  ExpectReason(ShutdownCause::kCrashed, true);
}

TEST_F(GuestEnd, Delete_Guest_RemovesReason) {
  Start();
  EXPECT_DONE(control_->PowerOn(kGuest, kAlice));
  EXPECT_DONE(control_->PowerOff(kGuest, kAlice));
  EXPECT_DONE(control_->Delete(kGuest, kAlice));
  EXPECT_EQ(Reason(), std::nullopt);
}

}  // namespace
}  // namespace vexa::guests
