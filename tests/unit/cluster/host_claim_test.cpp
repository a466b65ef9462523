// One running daemon per host id: who may claim it, and what a daemon that lost its claim can still do.
#include "host/cluster/host_claim.h"

#include <gmock/gmock.h>

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
#include "tests/support/require.h"
#include "tests/support/test_host.h"

namespace vexa::cluster {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using std::chrono::system_clock;
using test::Require;
using ::testing::HasSubstr;

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
    const std::string key = HostClaimKey(kHost);
    ASSERT_TRUE(CommitPlanned(host_.store(), [&]() -> Result<store::Transaction> {
                  const auto snapshot = Require(host_.store().Read());
                  StoredObject claim = Require(LoadObject(*snapshot, key));
                  change(claim.record);
                  store::Transaction transaction;
                  PutObject(transaction, key, claim);
                  return transaction;
                }).ok());
  }

  test::TestHost host_;
};

TEST_F(HostClaims, RestartOnTheSameMachine_TakesTheNextNumberImmediately) {
  const auto first = Require(Take(Original()));
  EXPECT_EQ(first->incarnation(), 1u);
  PutSeen(seconds(0));
  const auto begin = std::chrono::steady_clock::now();
  const auto second = Require(Take(Original()));
  EXPECT_LT(std::chrono::steady_clock::now() - begin, kWindow);
  EXPECT_EQ(second->incarnation(), 2u);
  EXPECT_EQ(second->booted(), 1u) << "the machine runs on";
  EXPECT_EQ(*first->Look(), Standing::kLost);
}

TEST_F(HostClaims, FullDisk_LeavesTheMachineItsClaim) {
  (void)Require(Take(Original()));
  host_.store().FailCommits();
  const auto claim = Require(Take(Original()));
  EXPECT_EQ(claim->incarnation(), 1u);
  EXPECT_EQ(*claim->Look(), Standing::kHeld);
  EXPECT_FALSE(Take({"4712-9.1", {}, "boot-1", "beta"}).ok());
}

TEST_F(HostClaims, Take_ClaimCreatedByRecovery_BelongsToNoMachine) {
  (void)Require(host_.store().Commit({{}, {{HostClaimKey(kHost), R"({"incarnation":1})"}}}));
  EXPECT_EQ(Require(Take(Original()))->incarnation(), 2u);
}

TEST_F(HostClaims, HostClaim_CardsUnreadable_KeepsStoredAddresses) {
  (void)Require(Take(Original()));
  ClaimIdentity blind = Original();
  blind.addresses.clear();
  (void)Require(Take(blind));
  EXPECT_FALSE(Take({"4711-1.5", {"5254000000ff"}, "boot-2", "beta"}).ok());
}

TEST_F(HostClaims, SettleFenced_GuestTakenMeanwhile_StaysFenced) {
  const auto claim = Require(Take(Original()));
  Change([](Json::Value& record) { FenceClaim(record); });
  (void)Require(host_.store().Commit({{}, {{FenceKey(kHost, "guest-2"), "{}"}}}));
  EXPECT_EQ(claim->Renew().error().code(), ErrorCode::kBusy);
  EXPECT_EQ(*claim->Look(), Standing::kFenced);
  ASSERT_TRUE(claim->Release().ok());
  EXPECT_EQ(*claim->Look(), Standing::kFenced) << "a stop settles nothing";
}

struct CopyRow {
  const char* what;
  ClaimIdentity identity;
  bool is_refused;
};

TEST_F(HostClaims, Copies_AreRefusedAndChangeNothing) {
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
    EXPECT_EQ(taken.error().ToString(),
              "The host id '" + std::string(kHost) +
                  "' belongs to the machine 'alpha', and this data folder is a copy of its: remove the file 'host-id' "
                  "from the data folder to join the cluster as a new host. If this machine has replaced that one, "
                  "which is off for good, start vexad once with --take-host-id")
        << row.what;
    EXPECT_EQ(RevisionOfStore(), before) << row.what;
  }
}

TEST_F(HostClaims, Take_MachineRestarted_WaitsForSignOfLife) {
  (void)Require(Take(Original()));
  ClaimIdentity restarted = Original();
  restarted.boot = "boot-2";
  PutSeen(seconds(0));
  const auto begin = std::chrono::steady_clock::now();
  const auto claim = Require(Take(restarted));
  EXPECT_GE(std::chrono::steady_clock::now() - begin, kWindow);
  EXPECT_EQ(claim->booted(), claim->incarnation());
}

TEST_F(HostClaims, SignOfLifeWhileAnotherWaits_RefusesIt) {
  (void)Require(Take(Original()));
  PutSeen(seconds(1));
  std::thread alive([&] {
    std::this_thread::sleep_for(kWindow / 2);
    PutSeen(seconds(0));
  });
  ClaimIdentity twin = Original();
  twin.boot = "boot-2";
  EXPECT_EQ(ReasonOf(twin), "Another vexad on the machine 'alpha' has the host id '" + std::string(kHost) +
                                "' and gives signs of life: stop it first, or remove the file 'host-id' from the data "
                                "folder to join the cluster as a new host");
  alive.join();
}

TEST_F(HostClaims, NoRecentLifeOrAProperStop_NeedNoWait) {
  ClaimIdentity restarted = Original();
  (void)Require(Take(Original()));
  PutSeen(kPresenceWindow + seconds(2));
  restarted.boot = "boot-2";
  const auto begin = std::chrono::steady_clock::now();
  const auto second = Require(Take(restarted));
  PutSeen(seconds(0));
  ASSERT_TRUE(second->Release().ok());
  restarted.boot = "boot-3";
  EXPECT_TRUE(Take(restarted).ok());
  EXPECT_LT(std::chrono::steady_clock::now() - begin, kWindow);
}

TEST_F(HostClaims, Administrator_GivesTheIdToAnotherMachine) {
  const auto original = Require(Take(Original()));
  const auto claim = Require(Take({"1-1", {"5254000000ff"}, "boot-9", "beta"}, true));
  EXPECT_EQ(claim->incarnation(), 2u);
  EXPECT_EQ(*original->Look(), Standing::kLost);
  EXPECT_EQ(original->Renew().error().code(), ErrorCode::kDenied);
  EXPECT_THAT(ReasonOf(Original()), HasSubstr("belongs to the machine 'beta'"));
}

TEST_F(HostClaims, ForgottenHost_StartsOnlyWithConsent) {
  const auto claim = Require(Take(Original()));
  Change([](Json::Value& record) { ForgetClaim(record, {"alice", system_clock::time_point(seconds(1'800'000'000))}); });
  EXPECT_EQ(*claim->Look(), Standing::kLost);
  EXPECT_EQ(ReasonOf(Original()),
            "This host, '" + std::string(kHost) +
                "', was removed from the cluster by alice at 2027-01-15T08:00:00Z: remove the file 'host-id' from the "
                "data folder to join as a new host, or start vexad once with --take-host-id to come back as this one");
  const auto back = Require(Take(Original(), true));
  EXPECT_EQ(back->incarnation(), 3u);
  EXPECT_EQ(*back->Look(), Standing::kHeld);
}

TEST_F(HostClaims, FencedDaemon_CommitsNothingUntilItHasRenewed) {
  const auto claim = Require(Take(Original()));
  EXPECT_EQ(*claim->Look(), Standing::kHeld);
  EXPECT_TRUE(host_.store().Commit({.compares = {claim->Guard()}, .operations = {{"/x", "1"}}}).ok());
  Change([](Json::Value& record) { EXPECT_EQ(FenceClaim(record), 2u); });
  EXPECT_EQ(*claim->Look(), Standing::kFenced);
  EXPECT_EQ(
      claim->Check().error().ToString(),
      "Other hosts considered this host gone meanwhile, and it has not yet settled which guests were taken from it");
  const auto committed = host_.store().Commit({.compares = {claim->Guard()}, .operations = {{"/x", "2"}}});
  ASSERT_FALSE(committed.ok());
  EXPECT_EQ(committed.error().code(), ErrorCode::kConflict);
  HostFacts facts;
  facts.host_id = kHost;
  for (const Status& written :
       {RegisterHost(host_.store(), facts, system_clock::now(), claim.get()),
        UpdateHost(host_.store(), facts, {system_clock::now(), system_clock::now()}, claim.get()),
        TouchHost(host_.store(), kHost, system_clock::now(), "", claim.get()),
        LeaveHost(host_.store(), kHost, claim.get())}) {
    ASSERT_FALSE(written.ok());
    EXPECT_EQ(written.error().code(), ErrorCode::kDenied);
  }
  ASSERT_TRUE(claim->Renew().ok());
  EXPECT_EQ(claim->incarnation(), 3u);
  EXPECT_TRUE(claim->Check().ok());
  EXPECT_TRUE(host_.store().Commit({.compares = {claim->Guard()}, .operations = {{"/x", "3"}}}).ok());
}

TEST_F(HostClaims, Presence_SettlesBeforeItShowsTheHostAgain) {
  std::shared_ptr<HostClaim> claim = Require(Take(Original()));
  std::atomic<bool> may_settle = false;
  std::atomic<int> lost = 0;
  PresenceOptions options;
  options.interval = milliseconds(5);
  options.claim = claim;
  options.settle_fenced = [&] { return may_settle.load(); };
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
    const HostPresence presence(std::shared_ptr<store::Store>(&host_.store(), [](store::Store*) {}), gather, options);
    Change([](Json::Value& record) { FenceClaim(record); });
    std::this_thread::sleep_for(milliseconds(50));  // a renewal that has begun may still come
    const store::Revision before = seen();
    std::this_thread::sleep_for(milliseconds(50));
    EXPECT_EQ(seen(), before);
    may_settle = true;
    EXPECT_TRUE(await([&] { return seen() > before; }));
    EXPECT_EQ(*claim->Look(), Standing::kHeld);
    EXPECT_EQ(lost, 0);
    Change([](Json::Value& record) { record["token"] = "somebody else's"; });
    EXPECT_TRUE(await([&] { return lost == 1; }));
    std::this_thread::sleep_for(milliseconds(30));
  }
  EXPECT_EQ(lost, 1);
}

TEST(HostPlace, File_KeepsItThroughARenameAndACopyHasAnother) {
  const test::TempDir folder;
  std::ofstream(folder.File("a")) << "x";
  const std::string place = Require(PlaceOf(folder.File("a")));
  std::filesystem::copy_file(folder.File("a"), folder.File("b"));
  EXPECT_NE(Require(PlaceOf(folder.File("b"))), place);
  std::filesystem::rename(folder.File("a"), folder.File("c"));
  EXPECT_EQ(Require(PlaceOf(folder.File("c"))), place);
  EXPECT_FALSE(PlaceOf(folder.File("a")).ok());
  EXPECT_FALSE(BootId().empty());
}

}  // namespace
}  // namespace vexa::cluster
