// Guests that start after their host's machine was booted.
#include "host/guests/autorun.h"

#include <syslog.h>

#include <atomic>
#include <thread>

#include "host/cluster/cluster_log.h"
#include "host/cluster/host_claim.h"
#include "host/records/host_claim_record.h"
#include "host/records/object_edit.h"
#include "host/records/reader.h"
#include "tests/support/libvirt_faults.h"
#include "tests/support/syslog_capture.h"
#include "tests/unit/guests/guest_control_fixture.h"

namespace vexa::guests {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr char kThird[] = "d4a9e7d2-5b31-4f86-a07c-1e2d3f4a5b6e";

TEST(StartsAfterBoot, SettingAndEarlierState_Decide) {
  struct Row {
    int autorun;
    bool when_off;
    bool when_ran;
    bool when_saved;
  };
  for (const Row& row : {Row{0, false, false, false}, Row{1, true, true, true}, Row{2, false, true, false},
                         Row{3, false, false, false}, Row{-1, false, false, false}}) {
    EXPECT_EQ(StartsAfterBoot(row.autorun, BeforeBoot::kOff), row.when_off) << row.autorun;
    EXPECT_EQ(StartsAfterBoot(row.autorun, BeforeBoot::kRan), row.when_ran) << row.autorun;
    EXPECT_EQ(StartsAfterBoot(row.autorun, BeforeBoot::kSaved), row.when_saved) << row.autorun;
  }
}

class GuestAutorun : public GuestControlTest {
 protected:
  GuestAutorun() { test::ClearCapturedSyslog(); }

  void PutAutorun(const std::string& id, const std::string& name, int autorun) {
    Json::Value changes(Json::objectValue);
    changes["autorun"] = autorun;
    PutGuest(id, name, changes);
  }
  // A daemon's start on the machine that was booted as `boot`.
  void StartOn(const std::string& boot) {
    Kill();
    cluster::ClaimOptions claim;
    claim.store = records::CurrentEnvironment()->store;
    claim.host_id = HostId();
    claim.identity = {"folder", {}, boot, "nas-1"};
    auto taken = cluster::HostClaim::Take(std::move(claim));
    ASSERT_TRUE(taken) << taken.error().ToString();
    claim_ = *taken;
    GuestControlOptions options = Options();
    options.claim = claim_;
    options.autorun_interval = 5ms;
    options.autorun_retry_wait = 5ms;
    options.before_step = [this](std::string_view step) {
      if (before_step_) before_step_(step);
    };
    Start(std::move(options));
  }
  void ExpectListEmpty() {
    const auto end = std::chrono::steady_clock::now() + 30s;
    while (!Pending().empty() && std::chrono::steady_clock::now() < end) std::this_thread::sleep_for(2ms);
    EXPECT_THAT(Pending(), IsEmpty());
  }
  std::vector<std::string> Pending() {
    return test::Require(ReadAutoruns(*records::CurrentEnvironment()->store, HostId())).guest_ids;
  }
  static std::vector<std::string> LogTexts() {
    std::vector<std::string> texts;
    const auto reader = test::Require(records::Reader::OpenCurrent());
    for (const auto& entry : test::Require(cluster::ReadLogAfter(reader, 0, 100))) texts.push_back(entry.text);
    return texts;
  }
  // The ids of the guests that were started with the machine, in that order.
  static std::vector<std::string> Started() {
    std::vector<std::string> started;
    for (const test::SyslogLine& line : test::CapturedSyslog()) {
      const std::size_t end = line.text.find(" was started with the machine.");
      if (end != std::string::npos) started.push_back(line.text.substr(10, end - 10));
    }
    return started;
  }

  std::shared_ptr<cluster::HostClaim> claim_;
  std::function<void(std::string_view)> before_step_;
};

TEST_F(GuestAutorun, Boot_StartsGuestsOfTheirSettingByName) {
  PutAutorun(kGuest, "web-1", 2);
  PutAutorun(kOther, "db-1", 1);
  PutAutorun(kThird, "old-1", 0);
  StartOn("boot-1");
  ExpectListEmpty();
  ExpectState(states::running, kOther);
  EXPECT_EQ(State(kGuest), states::shutdown) << "it did not run before";
  EXPECT_DONE(control_->PowerOn(kGuest, kAlice));
  EXPECT_DONE(control_->PowerOn(kThird, kAlice));
  test::ClearCapturedSyslog();
  StartOn("boot-2");
  ExpectListEmpty();
  ExpectState(states::running, kGuest);
  EXPECT_THAT(Started(), ElementsAre(kOther, kGuest)) << "db-1, then web-1";
  EXPECT_EQ(State(kThird), states::shutdown);
  EXPECT_EQ(RunOf(kThird), std::nullopt);
  EXPECT_THAT(LogTexts(),
              ::testing::IsSupersetOf({"The virtual machine [db-1] has been started with the host [nas-1].",
                                       "The virtual machine [web-1] has been started with the host [nas-1]."}));
}

TEST_F(GuestAutorun, GuestOffOrSuspendedAtTheBoot_StaysOffOrRuns) {
  PutAutorun(kGuest, "web-1", 2);
  PutAutorun(kOther, "db-1", 2);
  StartOn("boot-1");
  EXPECT_DONE(control_->PowerOn(kGuest, kAlice));
  EXPECT_DONE(control_->PowerOff(kGuest, kAlice));
  EXPECT_DONE(control_->PowerOn(kOther, kAlice));
  EXPECT_DONE(control_->Suspend(kOther, kAlice));
  StartOn("boot-2");
  ExpectListEmpty();
  ExpectState(states::running, kOther);
  EXPECT_EQ(State(kGuest), states::shutdown);
}

TEST_F(GuestAutorun, DaemonRestarted_StartsNothingThatWasStopped) {
  PutAutorun(kGuest, "web-1", 1);
  PutAutorun(kOther, "db-1", 2);
  StartOn("boot-1");
  ExpectListEmpty();
  EXPECT_DONE(control_->PowerOn(kOther, kAlice));
  EXPECT_DONE(control_->PowerOff(kGuest, kAlice));
  EXPECT_DONE(control_->PowerOff(kOther, kAlice));
  StartOn("boot-1");
  std::this_thread::sleep_for(200ms);
  EXPECT_EQ(State(kGuest), states::shutdown);
  EXPECT_EQ(State(kOther), states::shutdown);
  EXPECT_THAT(Pending(), IsEmpty());
}

// Before that, no daemon kept a list.
TEST_F(GuestAutorun, UpgradeOfRunningHost_StartsNothing) {
  StartOn("boot-1");
  Kill();
  ASSERT_TRUE(host_.store().Commit({{}, {{AutorunKey(HostId()), std::nullopt}}}));
  PutAutorun(kGuest, "web-1", 1);
  StartOn("boot-1");
  EXPECT_THAT(Pending(), IsEmpty());
  std::this_thread::sleep_for(100ms);
  EXPECT_EQ(State(kGuest), states::shutdown);
  EXPECT_EQ(test::Require(ReadAutoruns(*records::CurrentEnvironment()->store, HostId())).booted, claim_->booted());
}

TEST_F(GuestAutorun, DamagedList_IsMadeAgainAtTheNextBoot) {
  PutAutorun(kGuest, "web-1", 1);
  ASSERT_TRUE(host_.store().Commit({{}, {{AutorunKey(HostId()), "[7"}}}));
  StartOn("boot-1");
  ExpectListEmpty();
  ExpectState(states::running);
}

// The runs from before the boot are gone by then.
TEST_F(GuestAutorun, DaemonKilledBeforeTheStarts_NextOneStartsThem) {
  PutAutorun(kGuest, "web-1", 2);
  StartOn("boot-1");
  EXPECT_DONE(control_->PowerOn(kGuest, kAlice));
  {
    const test::FailingConnects unreachable({VIR_ERR_SYSTEM_ERROR, "no libvirt", ECONNREFUSED, VIR_FROM_RPC});
    StartOn("boot-2");
    EXPECT_THAT(Pending(), ElementsAre(kGuest));
    EXPECT_THAT(Started(), IsEmpty());
    Kill();
  }
  StartOn("boot-2");
  ExpectListEmpty();
  ExpectState(states::running);
  EXPECT_THAT(Started(), ElementsAre(kGuest));
}

TEST_F(GuestAutorun, FailedStart_IsRetriedAndThenGivenUp) {
  const auto cpus = std::to_string(100 * std::thread::hardware_concurrency());
  PutGuest(kGuest, "web-1", Parsed(R"({"autorun":1,"vcpu_num":)" + cpus + "}"));
  PutAutorun(kOther, "zz-1", 1);
  StartOn("boot-1");
  ExpectListEmpty();
  ExpectState(states::running, kOther);
  EXPECT_EQ(State(kGuest), states::shutdown);
  int retries = 0;
  int given_up = 0;
  for (const test::SyslogLine& line : test::CapturedSyslog()) {
    const std::string begin = "The guest " + std::string(kGuest) + " could not be started with the machine, and is ";
    if (line.text.starts_with(begin + "tried again in 1 s: ")) {
      ++retries;
      EXPECT_EQ(line.level(), LOG_WARNING);
    }
    if (line.text.starts_with(begin + "not tried again: ")) {
      ++given_up;
      EXPECT_EQ(line.level(), LOG_ERR);
    }
  }
  EXPECT_EQ(retries, 5);
  EXPECT_EQ(given_up, 1);
  EXPECT_THAT(LogTexts(),
              ::testing::Contains(HasSubstr("Failed to start the virtual machine [web-1] with the host [nas-1]: ")));
}

TEST_F(GuestAutorun, GuestStartedByUserMeanwhile_IsNotStartedOnceMore) {
  PutAutorun(kGuest, "web-1", 1);
  // The daemon that would have started it was killed.
  StartOn("boot-1");
  ExpectListEmpty();
  EXPECT_DONE(control_->PowerOff(kGuest, kAlice));
  Kill();
  const std::string list = R"({"booted":)" + std::to_string(claim_->booted()) + R"(,"guests":["gone",")" + kOther +
                           R"(",")" + kGuest + R"("]})";
  ASSERT_TRUE(host_.store().Commit({{}, {{AutorunKey(HostId()), list}}}));
  PutAutorun(kOther, "db-1", 1);
  std::atomic<bool> is_started = false;
  std::atomic<bool> is_done = false;
  before_step_ = [&](std::string_view step) {
    // While db-1 is started, alice starts and stops web-1.
    if (step != "poweron: reserved" || is_done) return;
    is_done = true;
    // The first start may begin before the fixture has the object.
    while (!is_started) std::this_thread::sleep_for(1ms);
    EXPECT_DONE(control_->PowerOn(kGuest, kAlice));
    EXPECT_DONE(control_->PowerOff(kGuest, kAlice));
  };
  test::ClearCapturedSyslog();
  StartOn("boot-1");
  is_started = true;
  ExpectListEmpty();
  EXPECT_TRUE(is_done);
  ExpectState(states::running, kOther);
  EXPECT_EQ(State(kGuest), states::shutdown);
  EXPECT_THAT(Started(), ElementsAre(kOther));
}

TEST_F(GuestAutorun, GuestMovedOrSetToNeverMeanwhile_IsNotStarted) {
  StartOn("boot-1");
  Kill();
  PutAutorun(kGuest, "web-1", 0);
  PutGuest(kOther, "db-1", Parsed(R"({"autorun":1,"host_id":"host-2"})"));
  const std::string list =
      R"({"booted":)" + std::to_string(claim_->booted()) + R"(,"guests":[")" + kOther + R"(",")" + kGuest + R"("]})";
  ASSERT_TRUE(host_.store().Commit({{}, {{AutorunKey(HostId()), list}}}));
  StartOn("boot-1");
  ExpectListEmpty();
  EXPECT_THAT(Started(), IsEmpty());
  EXPECT_EQ(State(kGuest), states::shutdown);
}

// What was taken from the host while it was gone is ended first.
TEST_F(GuestAutorun, FencesLeft_NothingIsStarted) {
  PutAutorun(kGuest, "web-1", 1);
  const std::string fence = records::FenceKey(HostId(), kOther);
  StartOn("boot-0");
  ExpectListEmpty();
  ASSERT_TRUE(host_.store().Commit({{}, {{fence, records::SerializeFence(1, {"alice", {}})}}}));
  const test::FailingConnects unreachable({VIR_ERR_SYSTEM_ERROR, "no libvirt", ECONNREFUSED, VIR_FROM_RPC});
  StartOn("boot-1");
  std::this_thread::sleep_for(100ms);
  EXPECT_THAT(Pending(), ElementsAre(kGuest));
}

TEST_F(GuestAutorun, ClaimFenced_NothingIsStartedUntilItIsRenewed) {
  PutAutorun(kGuest, "web-1", 1);
  before_step_ = nullptr;
  StartOn("boot-0");
  ExpectListEmpty();
  EXPECT_DONE(control_->PowerOff(kGuest, kAlice));
  const std::string list =
      R"({"booted":)" + std::to_string(claim_->booted()) + R"(,"guests":[")" + std::string(kGuest) + R"("]})";
  Kill();
  ASSERT_TRUE(host_.store().Commit({{}, {{AutorunKey(HostId()), list}}}));
  test::ClearCapturedSyslog();
  cluster::ClaimOptions claim;
  claim.store = records::CurrentEnvironment()->store;
  claim.host_id = HostId();
  claim.identity = {"folder", {}, "boot-0", "nas-1"};
  claim_ = test::Require(cluster::HostClaim::Take(std::move(claim)));
  // Another host takes a guest away.
  auto stored =
      test::Require(records::LoadObject(*test::Require(host_.store().Read()), records::HostClaimKey(HostId())));
  (void)records::AdvanceIncarnation(stored.record);
  store::Transaction transaction;
  records::PutObject(transaction, records::HostClaimKey(HostId()), stored);
  ASSERT_TRUE(host_.store().Commit(transaction));
  GuestControlOptions options = Options();
  options.claim = claim_;
  options.autorun_interval = 5ms;
  Start(std::move(options));
  std::this_thread::sleep_for(200ms);
  EXPECT_THAT(Started(), IsEmpty());
  EXPECT_THAT(Pending(), ElementsAre(kGuest));
  ASSERT_TRUE(claim_->Renew());
  ExpectListEmpty();
  ExpectState(states::running);
}

TEST_F(GuestAutorun, ListCannotBeStored_IsLoggedAndStartsNothing) {
  PutAutorun(kGuest, "web-1", 1);
  cluster::ClaimOptions claim;
  claim.store = records::CurrentEnvironment()->store;
  claim.host_id = HostId();
  claim.identity = {"folder", {}, "boot-1", "nas-1"};
  claim_ = test::Require(cluster::HostClaim::Take(std::move(claim)));
  host_.store().FailReadsOf(AutorunKey(HostId()));
  GuestControlOptions options = Options();
  options.claim = claim_;
  options.autorun_interval = 5ms;
  Start(std::move(options));
  EXPECT_TRUE(test::SyslogContains("It is unknown which guests start with the machine, so they are not started: "));
  std::this_thread::sleep_for(50ms);
  EXPECT_THAT(Started(), IsEmpty());
  host_.store().Heal();
}

}  // namespace
}  // namespace vexa::guests
