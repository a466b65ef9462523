// Recovering guests from a host that is gone, and removing it from the cluster.
#include "host/guests/recovery.h"

#include <gmock/gmock.h>

#include "host/base/json_parse.h"
#include "host/records/domain_record.h"
#include "host/records/environment.h"
#include "host/records/host_claim_record.h"
#include "host/records/host_liveness.h"
#include "host/records/live_state.h"
#include "host/records/run_record.h"
#include "host/store/key.h"
#include "json/readers.h"
#include "tests/support/record_test.h"
#include "tests/support/syslog_capture.h"
#include "webapi/platform/ccc.h"
#include "webapi/platform/ccc_state.h"

namespace vexa::guests {
namespace {

namespace states = VexaCCC::State::Guest;
using std::chrono::seconds;
using std::chrono::system_clock;

constexpr char kGone[] = "8d24e9b0-17f5-4c6a-b3de-0f9a6c5271e8";
constexpr char kAlive[] = "8d24e9b0-17f5-4c6a-b3de-0f9a6c5271e9";
constexpr char kGuest[] = "0b6c1f5e-2a7d-4c39-8e14-93d5a7f0c211";
constexpr char kOff[] = "0b6c1f5e-2a7d-4c39-8e14-93d5a7f0c212";

class GuestRecovery : public test::RecordTest {
 protected:
  GuestRecovery() {
    PutHost(kGone, "beta", records::kHeartbeatTimeout + seconds(60));
    PutHost(kAlive, "gamma", seconds(0));
    Put(records::HostClaimKey(kGone), R"({"incarnation":7,"booted":5,"token":"t"})");
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
    records::Run run;
    run.host_id = kGone;
    run.incarnation = incarnation;
    run.saved = saved;
    Put(records::RunKey(kGuest), records::SerializeRun(run));
    Put(records::LiveStateKey(kGuest), saved ? "\"guest_saved\"" : "\"guest_running\"");
    Put(records::LiveRecordKey(kGuest),
        R"({"host_id":")" + std::string(kGone) + R"(","sequences":{"x":{"epoch":1,"counter":2}}})");
  }
  // Null: absent.
  Json::Value Get(const std::string& key) {
    const auto snapshot = Require(host_.store().Read());
    const auto value = Require(snapshot->Get(key));
    return value ? Require(ParseJson(value->text)) : Json::Value();
  }
  Json::Value Guest(const char* id) { return Get(store::MakeKey({"dash", "guest", id, "object"})); }

  static RecoverRequest Request(MachineState machine = MachineState::kConfirmedOff) {
    RecoverRequest request;
    request.guest_id = kGuest;
    request.machine = machine;
    request.user = "alice";
    return request;
  }
  // Refused with the code and the sentence, and nothing has changed.
  void ExpectRefused(const RecoverRequest& request, int code, const std::string& reason) {
    RecordTest::ExpectRefused([&] { return RecoverGuest(host_.store(), request); }, code, reason);
  }
};

TEST_F(GuestRecovery, Recover_Confirmed_GuestIsOffAndFenced) {
  const auto refused = RecoverGuest(host_.store(), Request());
  ASSERT_TRUE(refused.ok()) << refused.error().reason;
  EXPECT_TRUE(Get(records::RunKey(kGuest)).isNull());
  EXPECT_EQ(Get(records::LiveStateKey(kGuest)), Json::Value(states::shutdown));
  EXPECT_FALSE(Guest(kGuest).isMember("host_id"));
  EXPECT_EQ(Guest(kGuest)["name"], Json::Value("web-1"));
  EXPECT_EQ(Get(records::HostClaimKey(kGone))["incarnation"], Json::Value(8));
  EXPECT_EQ(Get(records::HostClaimKey(kGone))["token"], Json::Value("t")) << "the host can renew it";
  const Json::Value note = Get(records::FenceKey(kGone, kGuest));
  EXPECT_EQ(note["by"], Json::Value("alice"));
  EXPECT_EQ(note["incarnation"], Json::Value(8));
  EXPECT_EQ(Get(records::UndefineKey(kGone, kGuest)), Json::Value(true))
      << "its definition would start with the machine";
  EXPECT_TRUE(Get(records::LiveRecordKey(kGuest)).isMember("sequences"));
  Json::Value conf;
  ASSERT_EQ(vgConfGet(kGuest, conf), 0);
  EXPECT_EQ(conf["shutdownreasonvalue"], Json::Value(10));
  EXPECT_EQ(conf["is_forced_shutdown"], Json::Value(true));
}

// All that decides is of one state, and nothing is pinned while the commit waits.
TEST_F(GuestRecovery, Recover_DoneOrRefused_ReadsOneSnapshot) {
  RecoverRequest request = Request();
  request.to_host_id = kAlive;
  (void)host_.store().TakeSnapshotUse();
  EXPECT_FALSE(RecoverGuest(host_.store(), Request(MachineState::kUnknown)).ok()) << "its reason names the host";
  EXPECT_EQ(host_.store().TakeSnapshotUse(), (test::SnapshotUse{1, 0, 0}));
  EXPECT_TRUE(RecoverGuest(host_.store(), request).ok());
  EXPECT_EQ(host_.store().TakeSnapshotUse(), (test::SnapshotUse{1, 0, 0}));
}

TEST_F(GuestRecovery, Forget_EveryStep_ReadsOneSnapshot) {
  ForgetRequest request;
  request.host_id = kGone;
  request.machine = MachineState::kConfirmedOff;
  request.user = "alice";
  (void)host_.store().TakeSnapshotUse();
  EXPECT_FALSE(ForgetHost(host_.store(), request).ok()) << "it has a guest";
  EXPECT_EQ(host_.store().TakeSnapshotUse(), (test::SnapshotUse{2, 0, 0})) << "the check, and the guests";
  request.guests = GuestsOfHost::kRecover;
  EXPECT_TRUE(ForgetHost(host_.store(), request).ok());
  EXPECT_EQ(host_.store().TakeSnapshotUse(), (test::SnapshotUse{4, 0, 0})) << "and one guest, and the host";
}

TEST_F(GuestRecovery, Recover_DestinationGiven_BecomesGuestsHost) {
  RecoverRequest request = Request();
  request.to_host_id = kAlive;
  EXPECT_TRUE(RecoverGuest(host_.store(), request).ok());
  EXPECT_EQ(Guest(kGuest)["host_id"], Json::Value(kAlive));
}

TEST_F(GuestRecovery, Recover_HostEndedWhileRestoring_SavedMemoryMustBeGivenUp) {
  records::Run run;
  run.host_id = kGone;
  run.incarnation = 6;
  run.starting = true;
  run.restoring = true;
  Put(records::RunKey(kGuest), records::SerializeRun(run));
  RecoverRequest request = Request();
  ExpectRefused(request, 974,
                "The guest's saved memory is on the host 'beta' and would be lost. Confirm that it may be discarded");
  request.saved = SavedMemory::kDiscard;
  EXPECT_TRUE(RecoverGuest(host_.store(), request).ok());
}

TEST_F(GuestRecovery, Recover_NotConfirmed_IsRefused) {
  ExpectRefused(Request(MachineState::kUnknown), 972,
                "The guest may still be running on the host 'beta', and a guest that runs twice destroys its disks. "
                "Make sure that the host's machine is off, and confirm it");
}

TEST_F(GuestRecovery, Recover_HostMachineRestarted_NeedsNoConfirmation) {
  PutRun(4);  // before the claim's "booted", 5
  EXPECT_TRUE(RecoverGuest(host_.store(), Request(MachineState::kUnknown)).ok());
}

TEST_F(GuestRecovery, Recover_ImportedGuestHostRestarted_NeedsConfirmation) {
  PutRun(4);
  Put(records::DomainKey(kGuest), "{}");
  EXPECT_EQ(RecoverGuest(host_.store(), Request(MachineState::kUnknown)).error().code, 972);
}

TEST_F(GuestRecovery, Recover_RunWithoutIncarnation_NeedsConfirmation) {
  PutRun(0);
  EXPECT_EQ(RecoverGuest(host_.store(), Request(MachineState::kUnknown)).error().code, 972);
}

TEST_F(GuestRecovery, Recover_HostAlive_KeepsItsGuest) {
  PutHost(kGone, "beta", seconds(1));
  ExpectRefused(Request(), 971, "The host 'beta' is alive. Use it to shut down or power off the guest");
}

TEST_F(GuestRecovery, Recover_GuestOfThisHost_IsRefused) {
  records::Run run;
  run.host_id = records::CurrentEnvironment()->host_id;
  Put(records::RunKey(kGuest), records::SerializeRun(run));
  EXPECT_EQ(RecoverGuest(host_.store(), Request()).error().code, 971);
}

TEST_F(GuestRecovery, Recover_SavedMemory_NeedsConsent) {
  PutRun(6, true);
  ExpectRefused(Request(), 974,
                "The guest's saved memory is on the host 'beta' and would be lost. Confirm that it may be discarded");
  RecoverRequest request = Request();
  request.saved = SavedMemory::kDiscard;
  EXPECT_TRUE(RecoverGuest(host_.store(), request).ok());
}

// Its machine may have restored it when it booted, although this system did not ask for that.
TEST_F(GuestRecovery, Recover_SavedMemory_NeedsConfirmation) {
  for (const std::uint64_t incarnation : {4u, 6u}) {  // before and after the boot of the machine
    PutRun(incarnation, true);
    RecoverRequest request = Request(MachineState::kUnknown);
    request.saved = SavedMemory::kDiscard;
    ExpectRefused(request, 972,
                  "The guest may still be running on the host 'beta', and a guest that runs twice destroys its disks. "
                  "Make sure that the host's machine is off, and confirm it");
  }
}

// libvirt may have restored it at the boot of its host.
TEST_F(GuestRecovery, Recover_SavedMemoryOfImportedGuest_NeedsConfirmation) {
  PutRun(6, true);
  Put(records::DomainKey(kGuest), "{}");
  RecoverRequest request = Request(MachineState::kUnknown);
  request.saved = SavedMemory::kDiscard;
  EXPECT_EQ(RecoverGuest(host_.store(), request).error().code, 972);
  request.machine = MachineState::kConfirmedOff;
  EXPECT_TRUE(RecoverGuest(host_.store(), request).ok());
}

TEST_F(GuestRecovery, Recover_InvalidRequest_IsRefused) {
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
  ExpectRefused(request, 911, "The guest has no host from which it could be taken");
  host_.PutText("guest", kOff, "[");
  EXPECT_EQ(RecoverGuest(host_.store(), request).error().code, 403);
}

TEST_F(GuestRecovery, Recover_GuestOff_NeedsNoConfirmation) {
  PutGuest(kOff, "off");
  RecoverRequest request = Request(MachineState::kUnknown);
  request.guest_id = kOff;
  EXPECT_TRUE(RecoverGuest(host_.store(), request).ok());
  EXPECT_FALSE(Guest(kOff).isMember("host_id"));
  EXPECT_FALSE(Get(records::FenceKey(kGone, kOff)).isNull()) << "the host may have started it, unheard";
}

TEST_F(GuestRecovery, Recover_HostWithoutRecords_CountsAsNeverPresent) {
  records::Run run;
  run.host_id = "a-host-of-an-import";
  Put(records::RunKey(kGuest), records::SerializeRun(run));
  EXPECT_TRUE(RecoverGuest(host_.store(), Request()).ok());
}

TEST_F(GuestRecovery, Recover_DiskFull_ChangesNothing) {
  host_.store().FailCommits();
  const auto refused = RecoverGuest(host_.store(), Request());
  ASSERT_FALSE(refused.ok());
  EXPECT_EQ(refused.error().code, 901);
  EXPECT_FALSE(Get(records::RunKey(kGuest)).isNull());
}

class HostRemoval : public GuestRecovery {
 protected:
  static ForgetRequest Forgetting(GuestsOfHost guests = GuestsOfHost::kKeep) {
    ForgetRequest request;
    request.host_id = kGone;
    request.machine = MachineState::kConfirmedOff;
    request.guests = guests;
    request.user = "alice";
    return request;
  }
  void ExpectNotForgotten(const ForgetRequest& request, int code, const std::string& reason) {
    RecordTest::ExpectRefused([&] { return ForgetHost(host_.store(), request); }, code, reason);
  }
};

TEST_F(HostRemoval, Remove_HostWithGuests_IsRefused) {
  ExpectNotForgotten(Forgetting(), 973,
                     "The host has guests that ran on it, or their saved memory: 'web-1'. Recover them first");
}

TEST_F(HostRemoval, Remove_HostWithGuestsToRecover_RemovesHostAndRecoversGuests) {
  PutGuest(kOff, "off");
  Put(store::MakeKey({"dash", "host", kGone, "nics", "nic-1"}), R"({"name":"eth0"})");
  const auto refused = ForgetHost(host_.store(), Forgetting(GuestsOfHost::kRecover));
  ASSERT_TRUE(refused.ok()) << refused.error().reason;
  const auto snapshot = Require(host_.store().Read());
  EXPECT_EQ(Require(snapshot->Children(store::MakeKey({"dash", "host"}))), std::vector<std::string>{kAlive});
  EXPECT_TRUE(Get(records::RunKey(kGuest)).isNull());
  EXPECT_FALSE(Guest(kGuest).isMember("host_id"));
  EXPECT_FALSE(Guest(kOff).isMember("host_id"));
  const Json::Value claim = Get(records::HostClaimKey(kGone));
  EXPECT_TRUE(records::IsForgotten(claim));
  EXPECT_EQ(claim["forgotten"]["by"], Json::Value("alice"));
  EXPECT_TRUE(Require(records::LivenessOf(Require(records::Reader::Open(host_.store())), kGone)).is_gone);
}

// Nobody else could finish or undo them.
TEST_F(HostRemoval, Remove_HostHasJobs_EndsThem) {
  constexpr char kHalf[] = "0b6c1f5e-2a7d-4c39-8e14-93d5a7f0c213";
  constexpr char kMoving[] = "0b6c1f5e-2a7d-4c39-8e14-93d5a7f0c214";
  constexpr char kOthers[] = "0b6c1f5e-2a7d-4c39-8e14-93d5a7f0c215";
  Delete(records::RunKey(kGuest));
  const auto job = [](const std::string& host, const std::string& stage, const std::string& lists) {
    return R"({"host_id":")" + host + R"(","user":"bob","request_id":"r","since":1,"stage":")" + stage + "\"," + lists +
           "}";
  };
  const std::string made = R"("made":["/i/r/0b6c1f5e-2a7d-4c39-8e14-93d5a7f0c219.qcow2"])";
  for (const char* id : {kHalf, kMoving, kOthers}) {
    const std::string state = id == kMoving ? states::importing : states::creating;
    host_.PutText("guest", id,
                  R"({"name":")" + std::string(id) + R"(","host_id":")" + kGone + R"(","state":")" + state +
                      R"(","creation_request":{"owner":"1000","id":"a"}})");
    Put(records::CreationKey(id), job(id == kOthers ? kAlive : kGone, "making", made));
  }
  Put("/request/1000/a",
      R"({"method":"create","digest":"d","guest_id":")" + std::string(kHalf) + R"(","state":"doing","since":1})");
  PutGuest(kOff, "off");
  const std::string hidden = R"("hidden":[{"path":"/i/r/a","hidden":".vexa-deleted-)" + std::string(kOff) + "-0\"}]";
  Put(records::EditKey(kOff), job(kGone, "doing", R"("made":[],"grown":[],)" + hidden));
  test::ClearCapturedSyslog();
  const auto forgotten = ForgetHost(host_.store(), Forgetting());
  ASSERT_TRUE(forgotten.ok()) << forgotten.error().reason;
  EXPECT_TRUE(Guest(kHalf).isNull());
  EXPECT_TRUE(Guest(kMoving).isNull());
  EXPECT_EQ(Guest(kOff)["name"], "off");
  for (const char* id : {kHalf, kMoving}) EXPECT_TRUE(Get(records::CreationKey(id)).isNull());
  EXPECT_TRUE(Get(records::EditKey(kOff)).isNull());
  EXPECT_EQ(Get("/request/1000/a")["state"], "failed");
  EXPECT_EQ(Get("/request/1000/a")["reason"], "The host that created the guest was removed from the cluster");
  // A host that lives goes on with its own.
  EXPECT_FALSE(Guest(kOthers).isNull());
  EXPECT_FALSE(Get(records::CreationKey(kOthers)).isNull());
  EXPECT_TRUE(test::SyslogContains("The edit of guest[" + std::string(kOff) +
                                   "] was given up with its host. If the host's storage still exists, look at "
                                   "[/i/r/a], maybe named [.vexa-deleted-" +
                                   kOff + "-0]"));
}

TEST_F(HostRemoval, Remove_JobHasManyFiles_NamesEach) {
  Delete(records::RunKey(kGuest));
  PutGuest(kOff, "off");
  std::string made;
  constexpr int kFiles = 20;
  for (int i = 10; i < 10 + kFiles; ++i) {
    made += std::string(made.empty() ? "" : ",") + "\"/i/" + std::string(100, 'r') +
            "/0b6c1f5e-2a7d-4c39-8e14-93d5a7f0c2" + std::to_string(i) + ".qcow2\"";
  }
  Put(records::EditKey(kOff), R"({"host_id":")" + std::string(kGone) +
                                  R"(","user":"bob","request_id":"r","since":1,"stage":"doing","grown":[],)" +
                                  R"("hidden":[],"made":[)" + made + "]}");
  test::ClearCapturedSyslog();
  const auto forgotten = ForgetHost(host_.store(), Forgetting());
  ASSERT_TRUE(forgotten.ok()) << forgotten.error().reason;
  for (int i = 10; i < 10 + kFiles; ++i) {
    EXPECT_TRUE(test::SyslogContains("93d5a7f0c2" + std::to_string(i) + ".qcow2], new"));
  }
}

// The new files are the guest's by then: nobody must look at them as if they were left over.
TEST_F(HostRemoval, Remove_JobBeyondItsLastCommit_LogsOnlyRemovedFiles) {
  Delete(records::RunKey(kGuest));
  PutGuest(kOff, "off");
  Put(records::EditKey(kOff),
      R"({"host_id":")" + std::string(kGone) + R"(","user":"bob","request_id":"r","since":1,"stage":"purging",)" +
          R"("made":["/i/r/0b6c1f5e-2a7d-4c39-8e14-93d5a7f0c219.qcow2"],"grown":[],"hidden":[{"path":"/i/r/a","hidden":".vexa-deleted-)" +
          kOff + "-0\"}]}");
  test::ClearCapturedSyslog();
  const auto forgotten = ForgetHost(host_.store(), Forgetting());
  ASSERT_TRUE(forgotten.ok()) << forgotten.error().reason;
  EXPECT_TRUE(Get(records::EditKey(kOff)).isNull());
  EXPECT_TRUE(test::SyslogContains("The edit of guest[" + std::string(kOff) +
                                   "] was completed, but files that it removes may be left on its host. If the host's "
                                   "storage still exists, look at [/i/r/a], maybe named [.vexa-deleted-" +
                                   kOff + "-0]"));
  EXPECT_FALSE(test::SyslogContains("0b6c1f5e-2a7d-4c39-8e14-93d5a7f0c219"));
}

TEST_F(HostRemoval, Remove_InvalidRequest_IsRefused) {
  ForgetRequest request = Forgetting();
  request.machine = MachineState::kUnknown;
  ExpectNotForgotten(
      request, 972,
      "Guests may still be running on the host 'beta'. Make sure that its machine is off, and confirm it");
  request = Forgetting();
  request.host_id = kAlive;
  EXPECT_EQ(ForgetHost(host_.store(), request).error().code, 971);
  request.host_id = records::CurrentEnvironment()->host_id;
  ExpectNotForgotten(request, 971, "This is the host that received the request");
  request.host_id = "no-such-host";
  ExpectNotForgotten(request, 403, "There is no host 'no-such-host'");
}

}  // namespace
}  // namespace vexa::guests
