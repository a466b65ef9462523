// One running daemon per host id: who may claim it, and what a daemon that lost its claim can still do.
#include "host/cluster/host_claim.h"

#include <atomic>
#include <filesystem>
#include <fstream>
#include <functional>
#include <thread>

#include "host/cluster/host_record.h"
#include "host/records/host_claim_record.h"
#include "host/records/object_edit.h"
#include "host/store/key.h"
#include "json/readers.h"
#include "tests/support/matchers.h"
#include "tests/support/require.h"
#include "tests/support/test_host.h"

namespace vexa::cluster {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using std::chrono::system_clock;

constexpr char kHost[] = "8d24e9b0-17f5-4c6a-b3de-0f9a6c5271e8";
constexpr milliseconds kWindow{300};

ClaimIdentity Original() { return {"4711-1.5", {"525400000001", "525400000002"}, "boot-1", "alpha"}; }

class HostClaims : public testing::Test {
 protected:
  Result<std::shared_ptr<HostClaim>> Take(const ClaimIdentity& identity, bool take_over = false) {
    ClaimOptions options;
    options.store = std::shared_ptr<store::Store>(&host_.store(), [](store::Store*) {});
    options.host_id = kHost;
    options.identity = identity;
    options.take_over = take_over;
    options.window = kWindow;
    return HostClaim::Take(std::move(options));
  }
  std::string ReasonOf(const ClaimIdentity& identity) {
    const auto taken = Take(identity);
    if (taken) return "it was taken";
    EXPECT_EQ(taken.error().code(), ErrorCode::kDenied);
    return taken.error().ToString();
  }
  void PutSeen(seconds age) {
    const auto now = std::chrono::duration_cast<seconds>(system_clock::now().time_since_epoch());
    const std::string text = R"({"time":)" + std::to_string((now - age).count()) + "}";
    (void)Require(host_.store().Commit({{}, {{store::MakeKey({"dash", "host", kHost, "seen"}), text}}}));
  }
  store::Revision RevisionOfStore() { return Require(host_.store().Read())->revision(); }
  void Change(const std::function<void(Json::Value&)>& change) {
    const std::string key = records::HostClaimKey(kHost);
    ASSERT_TRUE(
        records::CommitWithRetry(host_.store(), [&](const records::Reader& reader) -> Result<store::Transaction> {
          records::StoredObject claim = Require(records::LoadObject(reader, key));
          change(claim.record);
          store::Transaction transaction;
          records::PutObject(transaction, key, claim);
          return transaction;
        }).ok());
  }

  test::TestHost host_;
};

TEST_F(HostClaims, Take_RestartOnSameMachine_TakesNextNumberImmediately) {
  const auto first = Require(Take(Original()));
  EXPECT_EQ(first->incarnation(), 1u);
  PutSeen(seconds(0));
  const auto begin = std::chrono::steady_clock::now();
  const auto second = Require(Take(Original()));
  EXPECT_LT(std::chrono::steady_clock::now() - begin, kWindow);
  EXPECT_EQ(second->incarnation(), 2u);
  EXPECT_EQ(second->booted(), 1u) << "the machine runs on";
  EXPECT_EQ(*first->ReadClaimState(), ClaimState::kLost);
}

// Commits may have to wait long, and the store cannot reuse space meanwhile.
TEST_F(HostClaims, Commits_OfEveryKind_HaveNoSnapshotOpen) {
  const auto used = [this] { return host_.store().TakeSnapshotUse(); };
  (void)used();
  const auto claim = Require(Take(Original()));
  EXPECT_EQ(used(), (test::SnapshotUse{1, 0, 0}));
  EXPECT_TRUE(claim->Check());
  EXPECT_EQ(used(), (test::SnapshotUse{1, 0, 0}));
  EXPECT_TRUE(claim->Renew());
  EXPECT_EQ(used(), (test::SnapshotUse{1, 0, 0}));
  EXPECT_TRUE(claim->Release());
  EXPECT_EQ(used(), (test::SnapshotUse{1, 0, 0}));
}

TEST_F(HostClaims, Take_CommitFails_KeepsExistingClaim) {
  (void)Require(Take(Original()));
  host_.store().FailCommits();
  const auto claim = Require(Take(Original()));
  EXPECT_EQ(claim->incarnation(), 1u);
  EXPECT_EQ(*claim->ReadClaimState(), ClaimState::kHeld);
  EXPECT_FALSE(Take({"4712-9.1", {}, "boot-1", "beta"}).ok());
}

TEST_F(HostClaims, Take_ClaimCreatedByRecovery_IsFree) {
  (void)Require(host_.store().Commit({{}, {{records::HostClaimKey(kHost), R"({"incarnation":1})"}}}));
  EXPECT_EQ(Require(Take(Original()))->incarnation(), 2u);
}

TEST_F(HostClaims, HostClaim_CardsUnreadable_KeepsStoredAddresses) {
  (void)Require(Take(Original()));
  ClaimIdentity blind = Original();
  blind.addresses.clear();
  (void)Require(Take(blind));
  EXPECT_FALSE(Take({"4711-1.5", {"5254000000ff"}, "boot-2", "beta"}).ok());
}

TEST_F(HostClaims, Renew_GuestTakenMeanwhile_StaysFenced) {
  const auto claim = Require(Take(Original()));
  Change([](Json::Value& record) { records::AdvanceIncarnation(record); });
  (void)Require(host_.store().Commit({{}, {{records::FenceKey(kHost, "guest-2"), "{}"}}}));
  EXPECT_EQ(claim->Renew().error().code(), ErrorCode::kBusy);
  EXPECT_EQ(*claim->ReadClaimState(), ClaimState::kFenced);
  ASSERT_TRUE(claim->Release().ok());
  EXPECT_EQ(*claim->ReadClaimState(), ClaimState::kFenced) << "a stop settles nothing";
}

struct CopyRow {
  const char* what;
  ClaimIdentity identity;
  bool is_refused;
};

TEST_F(HostClaims, Take_ByCopy_IsRefusedAndChangesNothing) {
  const CopyRow rows[] = {
      {"a copied data folder", {"4712-9.1", {"525400000001"}, "boot-1", "beta"}, true},
      {"a copied disk in another machine", {"4711-1.5", {"5254000000ff"}, "boot-2", "beta"}, true},
      {"another network card", {"4711-1.5", {"525400000002", "5254000000ff"}, "boot-1", "alpha"}, false},
      {"cards without addresses of their own", {"4711-1.5", {}, "boot-1", "alpha"}, false},
  };
  for (const CopyRow& row : rows) {
    (void)Require(Take(Original(), true));
    const store::Revision before = RevisionOfStore();
    const auto taken = Take(row.identity);
    EXPECT_EQ(!taken.ok(), row.is_refused) << row.what;
    if (!row.is_refused) continue;
    EXPECT_EQ(
        taken.error().ToString(),
        "The host id '" + std::string(kHost) +
            "' belongs to the machine 'alpha', and this data folder is a copy of that machine's. Remove the file "
            "'host-id' from the data folder to join the cluster as a new host. If this machine has replaced that one, "
            "which is off for good, start vexad once with --take-host-id")
        << row.what;
    EXPECT_EQ(RevisionOfStore(), before) << row.what;
  }
}

TEST_F(HostClaims, Take_MachineRestarted_WaitsForHeartbeat) {
  (void)Require(Take(Original()));
  ClaimIdentity restarted = Original();
  restarted.boot = "boot-2";
  PutSeen(seconds(0));
  const auto begin = std::chrono::steady_clock::now();
  const auto claim = Require(Take(restarted));
  EXPECT_GE(std::chrono::steady_clock::now() - begin, kWindow);
  EXPECT_EQ(claim->booted(), claim->incarnation());
}

TEST_F(HostClaims, Take_OwnerHeartbeatDuringWait_IsRefused) {
  (void)Require(Take(Original()));
  PutSeen(seconds(1));
  std::thread alive([&] {
    std::this_thread::sleep_for(kWindow / 2);
    PutSeen(seconds(0));
  });
  ClaimIdentity twin = Original();
  twin.boot = "boot-2";
  EXPECT_EQ(ReasonOf(twin),
            "Another vexad on the machine 'alpha' holds the host id '" + std::string(kHost) +
                "' and still sends heartbeats. Stop it first, or remove the file 'host-id' from the data "
                "folder to join the cluster as a new host");
  alive.join();
}

TEST_F(HostClaims, Claim_OwnerSilentOrStopped_NeedsNoWait) {
  ClaimIdentity restarted = Original();
  (void)Require(Take(Original()));
  PutSeen(records::kHeartbeatTimeout + seconds(2));
  restarted.boot = "boot-2";
  const auto begin = std::chrono::steady_clock::now();
  const auto second = Require(Take(restarted));
  PutSeen(seconds(0));
  ASSERT_TRUE(second->Release().ok());
  restarted.boot = "boot-3";
  EXPECT_TRUE(Take(restarted).ok());
  EXPECT_LT(std::chrono::steady_clock::now() - begin, kWindow);
}

TEST_F(HostClaims, Take_Forced_MovesIdToOtherMachine) {
  const auto original = Require(Take(Original()));
  const auto claim = Require(Take({"1-1", {"5254000000ff"}, "boot-9", "beta"}, true));
  EXPECT_EQ(claim->incarnation(), 2u);
  EXPECT_EQ(*original->ReadClaimState(), ClaimState::kLost);
  EXPECT_EQ(original->Renew().error().code(), ErrorCode::kDenied);
  EXPECT_THAT(ReasonOf(Original()), HasSubstr("belongs to the machine 'beta'"));
}

TEST_F(HostClaims, Take_HostForgotten_NeedsConsent) {
  const auto claim = Require(Take(Original()));
  Change([](Json::Value& record) {
    records::ForgetClaim(record, {"alice", system_clock::time_point(seconds(1'800'000'000))});
  });
  EXPECT_EQ(*claim->ReadClaimState(), ClaimState::kLost);
  EXPECT_EQ(ReasonOf(Original()),
            "This host, '" + std::string(kHost) +
                "', was removed from the cluster by alice at 2027-01-15T08:00:00Z. Remove the file 'host-id' from the "
                "data folder to join as a new host, or start vexad once with --take-host-id to come back as this one");
  const auto back = Require(Take(Original(), true));
  EXPECT_EQ(back->incarnation(), 3u);
  EXPECT_EQ(*back->ReadClaimState(), ClaimState::kHeld);
}

TEST_F(HostClaims, Commit_Fenced_IsRefusedUntilRenewed) {
  const auto claim = Require(Take(Original()));
  EXPECT_EQ(*claim->ReadClaimState(), ClaimState::kHeld);
  EXPECT_TRUE(host_.store().Commit({.compares = {claim->Guard()}, .operations = {{"/x", "1"}}}).ok());
  Change([](Json::Value& record) { EXPECT_EQ(records::AdvanceIncarnation(record), 2u); });
  EXPECT_EQ(*claim->ReadClaimState(), ClaimState::kFenced);
  EXPECT_EQ(
      claim->Check().error().ToString(),
      "Other hosts considered this host gone meanwhile, and it has not yet stopped the guests that were taken from it");
  const auto committed = host_.store().Commit({.compares = {claim->Guard()}, .operations = {{"/x", "2"}}});
  ASSERT_FALSE(committed.ok());
  EXPECT_EQ(committed.error().code(), ErrorCode::kConflict);
  HostFacts facts;
  facts.host_id = kHost;
  for (const Status& written :
       {RegisterHost(host_.store(), facts, system_clock::now(), claim.get()),
        UpdateHost(host_.store(), facts, {system_clock::now(), system_clock::now()}, claim.get()),
        WriteHeartbeat(host_.store(), kHost, system_clock::now(), "", claim.get()),
        SignOffHost(host_.store(), kHost, claim.get())}) {
    ASSERT_FALSE(written.ok());
    EXPECT_EQ(written.error().code(), ErrorCode::kDenied);
  }
  ASSERT_TRUE(claim->Renew().ok());
  EXPECT_EQ(claim->incarnation(), 3u);
  EXPECT_TRUE(claim->Check().ok());
  EXPECT_TRUE(host_.store().Commit({.compares = {claim->Guard()}, .operations = {{"/x", "3"}}}).ok());
}

TEST_F(HostClaims, Heartbeat_FencedGuestsLeft_IsWrittenOnceTheyAreStopped) {
  std::shared_ptr<HostClaim> claim = Require(Take(Original()));
  std::atomic<bool> may_finish = false;
  std::atomic<int> lost = 0;
  HeartbeatOptions options;
  options.interval = milliseconds(5);
  options.claim = claim;
  options.stop_fenced_guests = [&] { return may_finish.load(); };
  options.on_lost = [&](const std::string&) { ++lost; };
  const auto gather = [] {
    HostFacts facts;
    facts.host_id = kHost;
    facts.name = "alpha";
    return facts;
  };
  const auto seen = [&] {
    const auto snapshot = Require(host_.store().Read());
    const auto value = Require(snapshot->Get(store::MakeKey({"dash", "host", kHost, "seen"})));
    return value ? value->revision : 0;
  };
  const auto await = [](const std::function<bool()>& holds) {
    for (int i = 0; i < 2000 && !holds(); ++i) std::this_thread::sleep_for(milliseconds(5));
    return holds();
  };
  {
    const HostHeartbeat heartbeat(std::shared_ptr<store::Store>(&host_.store(), [](store::Store*) {}), gather, options);
    Change([](Json::Value& record) { records::AdvanceIncarnation(record); });
    std::this_thread::sleep_for(milliseconds(50));  // a renewal that has begun may still come
    const store::Revision before = seen();
    std::this_thread::sleep_for(milliseconds(50));
    EXPECT_EQ(seen(), before);
    may_finish = true;
    EXPECT_TRUE(await([&] { return seen() > before; }));
    EXPECT_EQ(*claim->ReadClaimState(), ClaimState::kHeld);
    EXPECT_EQ(lost, 0);
    Change([](Json::Value& record) { record["token"] = "somebody else's"; });
    EXPECT_TRUE(await([&] { return lost == 1; }));
    std::this_thread::sleep_for(milliseconds(30));
  }
  EXPECT_EQ(lost, 1);
}

TEST(HostPlace, PlaceIdentity_FileRenamed_IsKeptAndCopyDiffers) {
  const test::TempDir folder;
  std::ofstream(folder.File("a")) << "x";
  const std::string place = Require(FileInstanceId(folder.File("a")));
  std::filesystem::copy_file(folder.File("a"), folder.File("b"));
  EXPECT_NE(Require(FileInstanceId(folder.File("b"))), place);
  std::filesystem::rename(folder.File("a"), folder.File("c"));
  EXPECT_EQ(Require(FileInstanceId(folder.File("c"))), place);
  EXPECT_FALSE(FileInstanceId(folder.File("a")).ok());
  EXPECT_FALSE(BootId().empty());
}

}  // namespace
}  // namespace vexa::cluster
