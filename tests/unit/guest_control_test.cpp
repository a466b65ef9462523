// What a host does with its guests, on libvirt's test driver and a real store.
#include "host/guests/guest_control.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <fstream>
#include <mutex>
#include <thread>
#include <vector>

#include "host/cluster/environment.h"
#include "host/cluster/live_state.h"
#include "host/guests/run_record.h"
#include "host/store/key.h"
#include "tests/support/require.h"
#include "tests/support/test_host.h"
#include "webapi/platform/ccc.h"
#include "webapi/platform/ccc_state.h"

namespace vexa::guests {
namespace {

using namespace std::chrono_literals;
using test::Parsed;
using ::testing::HasSubstr;
namespace states = VexaCCC::State::Guest;
using RunRecord = Run;  // a test has a member of that name

constexpr char kGuest[] = "0b6c1f5e-2a7d-4c39-8e14-93d5a7f0c211";
constexpr char kOther[] = "c4a9e7d2-5b31-4f86-a07c-1e2d3f4a5b6c";
const Requester kAlice{"alice", "nas-1", "request-1"};

class GuestControlTest : public ::testing::Test {
 protected:
  GuestControlTest() {
    PutGuest(kGuest, "web-1");
    host_.Put("host", HostId(), Parsed(R"({"name":"nas-1"})"));
    host_.Put("host", "host-2", Parsed(R"({"name":"nas-2"})"));
  }

  static std::string HostId() { return cluster::CurrentEnvironment()->host_id; }

  void PutGuest(const std::string& id, const std::string& name, const Json::Value& changes = {}) {
    Json::Value guest = Parsed(R"({"vcpu_num":1,"vram_size":64,"vdisks":[],"vnics":[],"state":"guest_shutdown"})");
    guest["name"] = name;
    guest["host_id"] = HostId();
    for (const std::string& member : changes.getMemberNames()) guest[member] = changes[member];
    host_.Put("guest", id, guest);
  }

  GuestControlOptions Options() {
    GuestControlOptions options;
    options.store = cluster::CurrentEnvironment()->store;
    options.host_id = HostId();
    options.image_roots = {host_.folder().path()};
    options.press_again = 20ms;
    options.shut_down_wait = 10s;
    return options;
  }

  void Start() { Start(Options()); }
  void Start(GuestControlOptions options) {
    auto started = GuestControl::Start(std::move(options));
    ASSERT_TRUE(started) << started.error().ToString();
    control_ = std::move(*started);
  }
  // What a kill leaves: nothing is told to anybody.
  void Kill() { control_.reset(); }

  std::optional<std::string> StoredGuest() {
    const auto snapshot = test::Require(host_.store().Read());
    const auto value = test::Require(snapshot->Get(test::TestHost::ObjectKey("guest", kGuest)));
    if (!value) return std::nullopt;
    return std::string(value->text);
  }
  static std::string State(const std::string& id = kGuest) {
    std::string state;
    return vgConfStateGet(id, state) == 0 ? state : "";
  }
  std::optional<RunRecord> RunOf(const std::string& id = kGuest) {
    const auto run = ReadRun(host_.store(), id);
    EXPECT_TRUE(run);
    if (!run || !*run) return std::nullopt;
    return (*run)->run;
  }
  void PutRun(const RunRecord& run, const std::string& id = kGuest) {
    ASSERT_TRUE(host_.store().Commit({{}, {{RunKey(id), RunText(run)}}}));
  }
  RunRecord RunHere() {
    RunRecord run;
    run.host_id = HostId();
    run.since = std::chrono::system_clock::now() - 100s;
    return run;
  }

  // A state that comes with an event.
  static void ExpectState(const std::string& expected, const std::string& id = kGuest) {
    const auto end = std::chrono::steady_clock::now() + 20s;
    while (State(id) != expected && std::chrono::steady_clock::now() < end) std::this_thread::sleep_for(2ms);
    EXPECT_EQ(State(id), expected);
  }

  test::TestHost host_;
  std::unique_ptr<GuestControl> control_;
};

#define EXPECT_DONE(expression)                                                    \
  do {                                                                             \
    const Refused expect_done = (expression);                                      \
    EXPECT_FALSE(expect_done) << expect_done->code << ": " << expect_done->reason; \
  } while (false)

#define EXPECT_REFUSED(expression, expected_code, words)   \
  do {                                                     \
    const Refused expect_refused = (expression);           \
    EXPECT_TRUE(expect_refused);                           \
    if (!expect_refused) break;                            \
    EXPECT_EQ(expect_refused->code, expected_code);        \
    EXPECT_THAT(expect_refused->reason, HasSubstr(words)); \
  } while (false)

TEST_F(GuestControlTest, PowerOn_StartsAndStoresIt) {
  Start();
  EXPECT_DONE(control_->PowerOn(kGuest, kAlice));
  EXPECT_EQ(State(), states::running);
  const auto run = RunOf();
  ASSERT_TRUE(run);
  EXPECT_EQ(run->host_id, HostId());
  EXPECT_FALSE(run->starting);
  EXPECT_EQ(run->vcpus, 1u);
  EXPECT_EQ(run->memory_mib, 64u);
  const auto running = control_->Running(kGuest);
  ASSERT_TRUE(running);
  EXPECT_LT(running->uptime_s, 60u);
}

TEST_F(GuestControlTest, PowerOn_OfARunningGuest_Is910) {
  Start();
  EXPECT_DONE(control_->PowerOn(kGuest, kAlice));
  EXPECT_REFUSED(control_->PowerOn(kGuest, kAlice), 910, "runs");
  EXPECT_EQ(State(), states::running);
}

TEST_F(GuestControlTest, PowerOn_OfAnUnknownOrDamagedGuest_Is403) {
  Start();
  EXPECT_REFUSED(control_->PowerOn(kOther, kAlice), 403, "");
  host_.PutText("guest", kOther, "[]");
  EXPECT_REFUSED(control_->PowerOn(kOther, kAlice), 403, "");
  PutGuest(kOther, "x", Parsed(R"({"vdisks":["no-such-disk"]})"));
  EXPECT_REFUSED(control_->PowerOn(kOther, kAlice), 403, "");
}

TEST_F(GuestControlTest, PowerOn_OfAnotherHostsGuest_Is912) {
  PutGuest(kGuest, "web-1", Parsed(R"({"host_id":"host-2"})"));
  Start();
  EXPECT_REFUSED(control_->PowerOn(kGuest, kAlice), 912, "host-2");
  EXPECT_EQ(RunOf(), std::nullopt);
}

TEST_F(GuestControlTest, PowerOn_OfAGuestThatAnotherHostHas_Is910) {
  RunRecord run;
  run.host_id = "host-2";
  PutRun(run);
  Start();
  EXPECT_REFUSED(control_->PowerOn(kGuest, kAlice), 910, "host-2");
  EXPECT_EQ(RunOf()->host_id, "host-2");
}

TEST_F(GuestControlTest, PowerOn_OfAGuestThatIsDeleted_Is915WithWhoAndSince) {
  ASSERT_TRUE(host_.store().Commit(
      {{},
       {{DeletionKey(kGuest),
         R"({"host_id":"host-2","user":"bob","since":1700000000,"stage":"hiding","files":[]})"}}}));
  Start();
  EXPECT_REFUSED(control_->PowerOn(kGuest, kAlice), 915, "bob");
  EXPECT_REFUSED(control_->PowerOn(kGuest, kAlice), 915, "2023-11-14T22:13:20Z");
  EXPECT_EQ(RunOf(), std::nullopt);
}

TEST_F(GuestControlTest, PowerOn_RefusedByTheRating_LeavesNothing) {
  PutGuest(kGuest, "web-1", Parsed(R"({"vram_size":2000000})"));
  Start();
  EXPECT_REFUSED(control_->PowerOn(kGuest, kAlice), 928, "2000000");
  EXPECT_EQ(RunOf(), std::nullopt);
  EXPECT_EQ(State(), states::shutdown);
}

TEST_F(GuestControlTest, PowerOn_OfARecordThatCannotRun_LeavesNothing) {
  PutGuest(kGuest, "web-1", Parsed(R"({"usb_version":77})"));
  Start();
  EXPECT_REFUSED(control_->PowerOn(kGuest, kAlice), 901, "usb_version");
  EXPECT_EQ(RunOf(), std::nullopt);
  EXPECT_EQ(State(), states::shutdown);
  PutGuest(kGuest, "web-1");
  EXPECT_DONE(control_->PowerOn(kGuest, kAlice));
}

TEST_F(GuestControlTest, PowerOn_CountsWhatOthersHaveTaken) {
  const auto cpus = std::thread::hardware_concurrency();
  GuestControlOptions options = Options();
  options.vcpus_per_cpu = 1;
  PutGuest(kGuest, "web-1", Parsed(R"({"vcpu_num":)" + std::to_string(cpus) + "}"));
  PutGuest(kOther, "web-2");
  Start(std::move(options));
  EXPECT_DONE(control_->PowerOn(kGuest, kAlice));
  EXPECT_REFUSED(control_->PowerOn(kOther, kAlice), 927, "");
  EXPECT_DONE(control_->PowerOff(kGuest, kAlice));
  EXPECT_DONE(control_->PowerOn(kOther, kAlice));
}

TEST_F(GuestControlTest, PowerOn_SetsProcessorsApart) {
  if (std::thread::hardware_concurrency() < 2) GTEST_SKIP() << "needs two processors";
  PutGuest(kGuest, "web-1", Parsed(R"({"cpu_pin_num":1})"));
  Start();
  EXPECT_DONE(control_->PowerOn(kGuest, kAlice));
  EXPECT_EQ(RunOf()->pinned_cpus.size(), 1u);
}

TEST_F(GuestControlTest, PowerOn_WithoutItsNetwork_Is917) {
  host_.Put("vnic", "nic-1", Parsed(R"({"guest_id":"x","network_name":"br-lab","mac_address":"02:00:00:00:00:01",
      "vnic_type":1})"));
  PutGuest(kGuest, "web-1", Parsed(R"({"vnics":["nic-1"]})"));
  GuestControlOptions options = Options();
  options.has_network = [](const std::string& name) { return name != "br-lab"; };
  Start(std::move(options));
  EXPECT_REFUSED(control_->PowerOn(kGuest, kAlice), 917, "br-lab");
}

TEST_F(GuestControlTest, PowerOff_EndsItAndLeavesNoRun) {
  Start();
  EXPECT_DONE(control_->PowerOn(kGuest, kAlice));
  EXPECT_DONE(control_->PowerOff(kGuest, kAlice));
  EXPECT_EQ(State(), states::shutdown);
  EXPECT_EQ(RunOf(), std::nullopt);
  EXPECT_FALSE(control_->Running(kGuest));
}

TEST_F(GuestControlTest, StoppingAGuestThatIsOff_Is911) {
  Start();
  EXPECT_REFUSED(control_->PowerOff(kGuest, kAlice), 911, "");
  EXPECT_REFUSED(control_->ShutDown(kGuest, kAlice), 911, "");
  EXPECT_REFUSED(control_->Reboot(kGuest, kAlice), 911, "");
  EXPECT_REFUSED(control_->PowerOff(kOther, kAlice), 403, "");
}

TEST_F(GuestControlTest, ShutDown_EndsIt) {
  Start();
  EXPECT_DONE(control_->PowerOn(kGuest, kAlice));
  EXPECT_DONE(control_->ShutDown(kGuest, kAlice));
  ExpectState(states::shutdown);
}

TEST_F(GuestControlTest, Reboot_LeavesItRunning) {
  Start();
  EXPECT_DONE(control_->PowerOn(kGuest, kAlice));
  EXPECT_DONE(control_->Reboot(kGuest, kAlice));
  EXPECT_EQ(State(), states::running);
  EXPECT_TRUE(RunOf());
}

TEST_F(GuestControlTest, Fence_EndsARunningGuestAndAcceptsOneThatIsOff) {
  Start();
  EXPECT_DONE(control_->Fence(kGuest));
  EXPECT_DONE(control_->Fence(kOther));
  EXPECT_DONE(control_->PowerOn(kGuest, kAlice));
  PutGuest(kGuest, "web-1", Parsed(R"({"host_id":"host-2"})"));
  EXPECT_DONE(control_->Fence(kGuest));
  EXPECT_EQ(RunOf(), std::nullopt);
}

TEST_F(GuestControlTest, SetHost_ChangesTheRecordAlone) {
  Start();
  EXPECT_DONE(control_->SetHost(kGuest, "host-2"));
  std::string host_id;
  EXPECT_EQ(vgConfHostGet(kGuest, host_id), 0);
  EXPECT_EQ(host_id, "host-2");
  Json::Value conf;
  EXPECT_EQ(vgConfGet(kGuest, conf), 0);
  EXPECT_EQ(conf["name"], "web-1");
}

TEST_F(GuestControlTest, SetHost_Refusals) {
  Start();
  EXPECT_REFUSED(control_->SetHost(kGuest, "no-such-host"), 403, "no-such-host");
  EXPECT_REFUSED(control_->SetHost(kOther, "host-2"), 403, "");
  EXPECT_DONE(control_->PowerOn(kGuest, kAlice));
  EXPECT_REFUSED(control_->SetHost(kGuest, "host-2"), 910, HostId());
}

TEST_F(GuestControlTest, ASecondActionMeanwhile_IsBusyWithWhoAndSince) {
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
    EXPECT_REFUSED(control_->PowerOff(kGuest, {"bob", "nas-2", ""}), 915, words);
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

TEST_F(GuestControlTest, ManyAtOnce_EndAsOneByOne) {
  Start();
  std::vector<std::thread> threads;
  for (int i = 0; i < 8; ++i) {
    threads.emplace_back([&, i] {
      for (int round = 0; round < 20; ++round) {
        const Refused refused = (i + round) % 3 == 0   ? control_->PowerOn(kGuest, kAlice)
                                : (i + round) % 3 == 1 ? control_->PowerOff(kGuest, kAlice)
                                                       : control_->ShutDown(kGuest, kAlice);
        EXPECT_THAT(refused ? refused->code : 0, ::testing::AnyOf(0, 910, 911, 915));
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  const Refused ended = control_->PowerOff(kGuest, kAlice);
  EXPECT_THAT(ended ? ended->code : 0, ::testing::AnyOf(0, 911));
  ExpectState(states::shutdown);
  EXPECT_EQ(RunOf(), std::nullopt);
}

TEST_F(GuestControlTest, AStart_StartsAgainWhatRan) {
  Start();
  EXPECT_DONE(control_->PowerOn(kGuest, kAlice));
  Kill();
  EXPECT_EQ(State(), states::running);
  Start();
  EXPECT_EQ(State(), states::running);
  EXPECT_DONE(control_->PowerOff(kGuest, kAlice));
}

TEST_F(GuestControlTest, AStart_UndoesAPowerOnThatWasNotFinished) {
  RunRecord run = RunHere();
  run.starting = true;
  PutRun(run);
  Start();
  EXPECT_EQ(RunOf(), std::nullopt);
  EXPECT_EQ(State(), states::shutdown);
  EXPECT_DONE(control_->PowerOn(kGuest, kAlice));
}

TEST_F(GuestControlTest, AStart_ShutsDownByItsRecordWhatCannotRunAgain) {
  PutRun(RunHere());
  host_.PutText("guest", kGuest, "{}");
  Start();
  EXPECT_EQ(RunOf(), std::nullopt);
}

TEST_F(GuestControlTest, AStart_LeavesOtherHostsGuestsAlone) {
  RunRecord run = RunHere();
  run.host_id = "host-2";
  PutRun(run);
  Start();
  EXPECT_EQ(RunOf()->host_id, "host-2");
}

TEST_F(GuestControlTest, AStart_AfterTheRecordHasGone_CleansUp) {
  PutRun(RunHere());
  host_.Remove("guest", kGuest);
  Start();
  EXPECT_EQ(RunOf(), std::nullopt);
}

TEST_F(GuestControlTest, AStop_BeginsNothingAndLeavesWhatRuns) {
  Start();
  EXPECT_DONE(control_->PowerOn(kGuest, kAlice));
  control_->BeginStop();
  EXPECT_REFUSED(control_->PowerOff(kGuest, kAlice), 949, "stopping");
  EXPECT_EQ(State(), states::running);
}

TEST_F(GuestControlTest, Delete_OfARunningGuest_Is910) {
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

TEST_F(GuestControlTest, OptionsThatCannotBe_AreErrors) {
  GuestControlOptions options = Options();
  options.hypervisor.mode = "no such thing";
  EXPECT_FALSE(GuestControl::Start(std::move(options)));
}

TEST_F(GuestControlTest, EditOfARunningGuest_IsPendingUntilTheNextPowerOn) {
  Start();
  ASSERT_FALSE(control_->PowerOn(kGuest, kAlice));
  ASSERT_FALSE(control_->Edit(kGuest, Parsed(R"({"vram_size":96})"), kAlice));
  const auto record = [&] { return Parsed(*StoredGuest()); };
  EXPECT_EQ(record()["pending"], Parsed(R"(["vram_size"])"));
  ASSERT_FALSE(control_->PowerOff(kGuest, kAlice));
  ASSERT_FALSE(control_->PowerOn(kGuest, kAlice));
  EXPECT_FALSE(record().isMember("pending"));
  ASSERT_TRUE(RunOf());
  EXPECT_EQ(RunOf()->memory_mib, 96u);
  // More processors than the host has cannot be set apart.
  const Refused refused = control_->Edit(kGuest, Parsed(R"({"vcpu_num":512,"cpu_pin_num":512})"), kAlice);
  ASSERT_TRUE(refused);
  EXPECT_EQ(refused->code, kNotPinned);
}

TEST_F(GuestControlTest, WhileItsDisksAreEdited_AGuestIsNotStartedOrMoved) {
  Start();
  const std::string edit =
      R"({"host_id":"nas-2","user":"bob","since":0,"stage":"doing","made":[],"hidden":[],"grown":[]})";
  ASSERT_TRUE(host_.store().Commit({{}, {{EditKey(kGuest), edit}}}));
  for (const Refused& refused : {control_->PowerOn(kGuest, kAlice), control_->SetHost(kGuest, "host-2")}) {
    ASSERT_TRUE(refused);
    EXPECT_EQ(refused->code, kBusy);
    EXPECT_THAT(refused->reason, HasSubstr("edited by 'bob'"));
  }
}

}  // namespace
}  // namespace vexa::guests
