// Taking guests from a host that is gone, and removing it from the cluster.
#include "host/guests/recovery.h"

#include <gmock/gmock.h>

#include "host/base/json_parse.h"
#include "host/records/domain_record.h"
#include "host/records/environment.h"
#include "host/records/host_claim_record.h"
#include "host/records/host_life.h"
#include "host/records/live_state.h"
#include "host/records/run_record.h"
#include "host/store/key.h"
#include "json/readers.h"
#include "tests/support/require.h"
#include "tests/support/test_host.h"
#include "webapi/platform/ccc.h"
#include "webapi/platform/ccc_state.h"

namespace vexa::guests {
namespace {

namespace states = VexaCCC::State::Guest;
using std::chrono::seconds;
using std::chrono::system_clock;
using test::Require;

constexpr char kGone[] = "8d24e9b0-17f5-4c6a-b3de-0f9a6c5271e8";
constexpr char kAlive[] = "8d24e9b0-17f5-4c6a-b3de-0f9a6c5271e9";
constexpr char kGuest[] = "0b6c1f5e-2a7d-4c39-8e14-93d5a7f0c211";
constexpr char kOff[] = "0b6c1f5e-2a7d-4c39-8e14-93d5a7f0c212";

class GuestRecovery : public testing::Test {
 protected:
  GuestRecovery() {
    PutHost(kGone, "beta", cluster::kPresenceWindow + seconds(60));
    PutHost(kAlive, "gamma", seconds(0));
    Put(cluster::HostClaimKey(kGone), R"({"incarnation":7,"booted":5,"token":"t"})");
    PutGuest(kGuest, "web-1");
    PutRun(6);
  }

  void PutHost(const char* id, const char* name, seconds age) {
    host_.PutText("host", id, R"({"name":")" + std::string(name) + R"(","state":"host_running"})");
    const auto now = std::chrono::duration_cast<seconds>(system_clock::now().time_since_epoch());
    Put(store::MakeKey({"dash", "host", id, "seen"}), R"({"time":)" + std::to_string((now - age).count()) + "}");
  }
  void PutGuest(const char* id, const char* name) {
    host_.PutText("guest", id, R"({"name":")" + std::string(name) + R"(","host_id":")" + kGone + "\"}");
  }
  void PutRun(std::uint64_t incarnation, bool saved = false) {
    guests::Run run;
    run.host_id = kGone;
    run.incarnation = incarnation;
    run.saved = saved;
    Put(RunKey(kGuest), RunText(run));
    Put(cluster::LiveStateKey(kGuest), saved ? "\"guest_saved\"" : "\"guest_running\"");
    Put(cluster::LiveRecordKey(kGuest),
        R"({"host_id":")" + std::string(kGone) + R"(","sequences":{"x":{"epoch":1,"counter":2}}})");
  }
  void Put(const std::string& key, const std::string& text) {
    (void)Require(host_.store().Commit({{}, {{key, text}}}));
  }
  // Null: absent.
  Json::Value Get(const std::string& key) {
    const auto snapshot = Require(host_.store().Read());
    const auto value = Require(snapshot->Get(key));
    return value ? Require(ParseJson(value->text)) : Json::Value();
  }
  Json::Value Guest(const char* id) { return Get(store::MakeKey({"dash", "guest", id, "object"})); }
  store::Revision Revision() { return Require(host_.store().Read())->revision(); }

  static RecoverRequest Request(MachineIs machine = MachineIs::kConfirmedOff) {
    RecoverRequest request;
    request.guest_id = kGuest;
    request.machine = machine;
    request.user = "alice";
    return request;
  }
  // Refused with the code and the sentence, and nothing has changed.
  void ExpectRefused(const RecoverRequest& request, int code, const std::string& reason) {
    const store::Revision before = Revision();
    const Refused refused = RecoverGuest(host_.store(), request);
    ASSERT_TRUE(refused) << reason;
    EXPECT_EQ(refused->code, code);
    EXPECT_EQ(refused->reason, reason);
    EXPECT_EQ(Revision(), before);
  }

  test::TestHost host_;
};

TEST_F(GuestRecovery, ConfirmedGuest_IsOffAndFenced) {
  const Refused refused = RecoverGuest(host_.store(), Request());
  ASSERT_FALSE(refused) << refused->reason;
  EXPECT_TRUE(Get(RunKey(kGuest)).isNull());
  EXPECT_EQ(Get(cluster::LiveStateKey(kGuest)), Json::Value(states::shutdown));
  EXPECT_FALSE(Guest(kGuest).isMember("host_id"));
  EXPECT_EQ(Guest(kGuest)["name"], Json::Value("web-1"));
  EXPECT_EQ(Get(cluster::HostClaimKey(kGone))["incarnation"], Json::Value(8));
  EXPECT_EQ(Get(cluster::HostClaimKey(kGone))["token"], Json::Value("t")) << "the host can renew it";
  const Json::Value note = Get(cluster::FenceKey(kGone, kGuest));
  EXPECT_EQ(note["by"], Json::Value("alice"));
  EXPECT_EQ(note["incarnation"], Json::Value(8));
  EXPECT_EQ(Get(UndefineKey(kGone, kGuest)), Json::Value(true)) << "its definition would start with the machine";
  EXPECT_TRUE(Get(cluster::LiveRecordKey(kGuest)).isMember("sequences"));
  Json::Value conf;
  ASSERT_EQ(vgConfGet(kGuest, conf), 0);
  EXPECT_EQ(conf["shutdownreasonvalue"], Json::Value(10));
  EXPECT_EQ(conf["is_forced_shutdown"], Json::Value(true));
}

TEST_F(GuestRecovery, Destination_BecomesTheGuestsHost) {
  RecoverRequest request = Request();
  request.to_host_id = kAlive;
  EXPECT_FALSE(RecoverGuest(host_.store(), request));
  EXPECT_EQ(Guest(kGuest)["host_id"], Json::Value(kAlive));
}

TEST_F(GuestRecovery, WithoutConfirmation_IsRefused) {
  ExpectRefused(Request(MachineIs::kUnknown), 972,
                "The guest's machine may still run on the host 'beta', and two machines on the same disks destroy "
                "them: make sure that the host's machine is off, and confirm it");
}

TEST_F(GuestRecovery, Recover_HostMachineRestarted_NeedsNoConfirmation) {
  PutRun(4);  // before the claim's "booted", 5
  EXPECT_FALSE(RecoverGuest(host_.store(), Request(MachineIs::kUnknown)));
}

TEST_F(GuestRecovery, ImportedGuestMayHaveStartedWithItsHost_SoNothingIsProved) {
  PutRun(4);
  Put(DomainKey(kGuest), "{}");
  EXPECT_EQ(RecoverGuest(host_.store(), Request(MachineIs::kUnknown))->code, 972);
}

TEST_F(GuestRecovery, RunOfAnOlderVersion_ProvesNothing) {
  PutRun(0);
  EXPECT_EQ(RecoverGuest(host_.store(), Request(MachineIs::kUnknown))->code, 972);
}

TEST_F(GuestRecovery, Recover_HostAlive_KeepsItsGuest) {
  PutHost(kGone, "beta", seconds(1));
  ExpectRefused(Request(), 971, "The host 'beta' gives signs of life: use it to shut down or power off the guest");
}

TEST_F(GuestRecovery, ThisHostItself_IsAlive) {
  guests::Run run;
  run.host_id = cluster::CurrentEnvironment()->host_id;
  Put(RunKey(kGuest), RunText(run));
  EXPECT_EQ(RecoverGuest(host_.store(), Request())->code, 971);
}

TEST_F(GuestRecovery, SavedMemory_IsLostWithConsentOnly) {
  PutRun(6, true);
  ExpectRefused(Request(), 974,
                "The guest's saved memory is on the host 'beta' and would be lost: confirm that it is to be discarded");
  RecoverRequest request = Request(MachineIs::kUnknown);
  request.saved = SavedMemory::kDiscard;
  EXPECT_FALSE(RecoverGuest(host_.store(), request)) << "a guest that is saved runs nowhere";
}

TEST_F(GuestRecovery, ImpossibleRequests_AreRefused) {
  RecoverRequest request = Request();
  request.guest_id = kOff;
  ExpectRefused(request, 403, "There is no guest '" + std::string(kOff) + "'");
  request = Request();
  request.to_host_id = "no-such-host";
  ExpectRefused(request, 403, "There is no host 'no-such-host'");
  request.to_host_id = kGone;
  ExpectRefused(request, 971, "The host 'beta', the new host of the guest, is itself inaccessible");
  host_.PutText("guest", kOff, R"({"name":"off"})");
  request = Request();
  request.guest_id = kOff;
  ExpectRefused(request, 911, "The guest has no host that it could be taken from");
  host_.PutText("guest", kOff, "[");
  EXPECT_EQ(RecoverGuest(host_.store(), request)->code, 403);
}

TEST_F(GuestRecovery, GuestThatWasOff_LosesItsHostWithoutConfirmation) {
  PutGuest(kOff, "off");
  RecoverRequest request = Request(MachineIs::kUnknown);
  request.guest_id = kOff;
  EXPECT_FALSE(RecoverGuest(host_.store(), request));
  EXPECT_FALSE(Guest(kOff).isMember("host_id"));
  EXPECT_FALSE(Get(cluster::FenceKey(kGone, kOff)).isNull()) << "the host may have started it, unheard";
}

TEST_F(GuestRecovery, Recover_HostWithoutRecords_CountsAsNeverPresent) {
  guests::Run run;
  run.host_id = "a-host-of-an-import";
  Put(RunKey(kGuest), RunText(run));
  EXPECT_FALSE(RecoverGuest(host_.store(), Request()));
}

TEST_F(GuestRecovery, FullDisk_ChangesNothing) {
  host_.store().FailCommits();
  const Refused refused = RecoverGuest(host_.store(), Request());
  ASSERT_TRUE(refused);
  EXPECT_EQ(refused->code, 901);
  EXPECT_FALSE(Get(RunKey(kGuest)).isNull());
}

class HostRemoval : public GuestRecovery {
 protected:
  static ForgetRequest Forgetting(GuestsOfHost guests = GuestsOfHost::kKeep) {
    ForgetRequest request;
    request.host_id = kGone;
    request.machine = MachineIs::kConfirmedOff;
    request.guests = guests;
    request.user = "alice";
    return request;
  }
  void ExpectNotForgotten(const ForgetRequest& request, int code, const std::string& reason) {
    const store::Revision before = Revision();
    const Refused refused = ForgetHost(host_.store(), request);
    ASSERT_TRUE(refused) << reason;
    EXPECT_EQ(refused->code, code);
    EXPECT_EQ(refused->reason, reason);
    EXPECT_EQ(Revision(), before);
  }
};

TEST_F(HostRemoval, HostWithGuests_IsKept) {
  ExpectNotForgotten(Forgetting(), 973,
                     "The host has guests that ran on it, or their saved memory: 'web-1'. Recover them first");
}

TEST_F(HostRemoval, Host_GoesWithItsGuests) {
  PutGuest(kOff, "off");
  Put(store::MakeKey({"dash", "host", kGone, "nics", "nic-1"}), R"({"name":"eth0"})");
  const Refused refused = ForgetHost(host_.store(), Forgetting(GuestsOfHost::kRecover));
  ASSERT_FALSE(refused) << refused->reason;
  const auto snapshot = Require(host_.store().Read());
  EXPECT_EQ(Require(snapshot->Children(store::MakeKey({"dash", "host"}))), std::vector<std::string>{kAlive});
  EXPECT_TRUE(Get(RunKey(kGuest)).isNull());
  EXPECT_FALSE(Guest(kGuest).isMember("host_id"));
  EXPECT_FALSE(Guest(kOff).isMember("host_id"));
  const Json::Value claim = Get(cluster::HostClaimKey(kGone));
  EXPECT_TRUE(cluster::IsForgotten(claim));
  EXPECT_EQ(claim["forgotten"]["by"], Json::Value("alice"));
  EXPECT_TRUE(Require(cluster::LifeOf(kGone)).is_gone);
}

TEST_F(HostRemoval, WrongRequests_AreRefused) {
  ForgetRequest request = Forgetting();
  request.machine = MachineIs::kUnknown;
  ExpectNotForgotten(request, 972,
                     "The machine of the host 'beta' may still run guests: make sure that it is off, and confirm it");
  request = Forgetting();
  request.host_id = kAlive;
  EXPECT_EQ(ForgetHost(host_.store(), request)->code, 971);
  request.host_id = cluster::CurrentEnvironment()->host_id;
  ExpectNotForgotten(request, 971, "This is the host that you are asking");
  request.host_id = "no-such-host";
  ExpectNotForgotten(request, 403, "There is no host 'no-such-host'");
}

}  // namespace
}  // namespace vexa::guests
