// The local guest configuration, and what a pass over all guests does to the cache of records.
#include <gtest/gtest.h>

#include <chrono>

#include "host/records/environment_internal.h"
#include "host/records/live_state.h"
#include "host/records/record_cache.h"
#include "host/records/request_scope.h"
#include "host/records/unstored_states.h"
#include "tests/support/test_host.h"
#include "webapi/platform/ccc.h"
#include "webapi/platform/ccc_state.h"

namespace vexa::platform {
namespace {

using test::TestHost;

class LocalConfig : public testing::Test {
 protected:
  void PutState(const std::string& guest, const std::string& text) {
    ASSERT_TRUE(host_.store().Commit({{}, {{records::LiveStateKey(guest), text}}}).ok());
  }
  // All four fail and leave their outputs alone.
  void ExpectNothing(const std::string& guest) {
    Json::Value conf("before");
    EXPECT_EQ(vgConfGet(guest, conf), -1);
    EXPECT_EQ(conf, "before");
    std::string text = "before";
    EXPECT_EQ(vgConfStateGet(guest, text), -1);
    EXPECT_EQ(vgConfHostGet(guest, text), -1);
    EXPECT_EQ(vgConfRepoHostIdGet(guest, text), -1);
    EXPECT_EQ(text, "before");
  }

  TestHost host_;
};

TEST_F(LocalConfig, Guest_Read_IsRecordWithLiveState) {
  host_.PutText("guest", "g", R"({"name":"web","state":"guest_shutdown","n":[1]})");
  Json::Value conf("before");
  ASSERT_EQ(vgConfGet("g", conf), 0);
  EXPECT_EQ(conf, Parsed(R"({"name":"web","state":"guest_shutdown","n":[1]})")) << "no live state yet";
  PutState("g", R"("guest_running")");
  ASSERT_EQ(vgConfGet("g", conf), 0);
  EXPECT_EQ(conf, Parsed(R"({"name":"web","state":"guest_running","n":[1]})"));
  std::string state;
  EXPECT_EQ(vgConfStateGet("g", state), 0);
  EXPECT_EQ(state, "guest_running");
  host_.PutText("guest", "h", R"({"name":"db"})");
  ASSERT_EQ(vgConfGet("h", conf), 0);
  EXPECT_FALSE(conf.isMember("state"));
  state = "before";
  EXPECT_EQ(vgConfStateGet("h", state), -1) << "it has none";
  EXPECT_EQ(state, "before");
  PutState("h", R"("guest_saved")");
  ASSERT_EQ(vgConfGet("h", conf), 0);
  EXPECT_EQ(conf["state"], "guest_saved");
}

TEST_F(LocalConfig, Guest_OutputModified_LeavesCacheUnchanged) {
  host_.PutText("guest", "g", R"({"name":"web","state":"guest_shutdown"})");
  PutState("g", R"("guest_running")");
  Json::Value conf;
  ASSERT_EQ(vgConfGet("g", conf), 0);
  conf["state"] = "mine";
  conf["name"] = "mine";
  Json::Value again;
  ASSERT_EQ(vgConfGet("g", again), 0);
  EXPECT_EQ(again, Parsed(R"({"name":"web","state":"guest_running"})"));
  Json::Value record;
  ASSERT_EQ(VexaCCC::DB::Dashboard(VexaCCC::DB::DashCate::Guest, "g").Get(record, "object"), 0);
  EXPECT_EQ(record, again) << "both contain the live state";
}

TEST_F(LocalConfig, LocalConfig_MissingOrDamaged_Fails) {
  for (const std::string& id : std::vector<std::string>{
           "none", "", "..", "../guest/g", "g/object", {"g\0", 2}, "%67", "g\n", std::string(1 << 20, 'g')}) {
    ExpectNothing(id);
  }
  for (const char* text : {"{", "", "[]", "null", "7", R"("text")"}) {
    host_.PutText("guest", "g", text);
    ExpectNothing("g");
  }
  PutState("ghost", R"("guest_running")");
  ExpectNothing("ghost");
}

TEST_F(LocalConfig, State_Damaged_IsNotReplacedByOldOne) {
  host_.PutText("guest", "g", R"({"state":"guest_shutdown"})");
  for (const char* text : {"{", "7", "null", R"(["guest_running"])"}) {
    PutState("g", text);
    Json::Value conf("before");
    std::string state = "before";
    EXPECT_EQ(vgConfGet("g", conf), -1) << text;
    EXPECT_EQ(vgConfStateGet("g", state), -1) << text;
    EXPECT_EQ(conf, "before");
    EXPECT_EQ(state, "before");
  }
  host_.PutText("guest", "h", R"({"state":["guest_shutdown"]})");
  std::string state = "before";
  EXPECT_EQ(vgConfStateGet("h", state), -1);
  EXPECT_EQ(state, "before");
}

TEST_F(LocalConfig, LocalConfig_HostAndNoHost_AreDistinguished) {
  const auto host_of = [this](const char* record, std::string& out) {
    host_.PutText("guest", "g", record);
    return vgConfHostGet("g", out);
  };
  std::string host = "before";
  for (const char* record : {"{}", R"({"host_id":""})", R"({"host_id":null})"}) {
    EXPECT_EQ(host_of(record, host), -2) << record;
  }
  for (const char* record : {R"({"host_id":7})", R"({"host_id":["h"]})", R"({"host_id":false})", "[]", "{"}) {
    EXPECT_EQ(host_of(record, host), -1) << record;
  }
  EXPECT_EQ(host, "before");
  EXPECT_EQ(host_of(R"({"host_id":"../h"})", host), 0);
  EXPECT_EQ(host, "../h");
}

TEST_F(LocalConfig, RepositoryHost_Read_ComesFromItsRecord) {
  std::string host = "before";
  host_.PutText("repository", "r", R"({"host_id":"h"})");
  host_.PutText("repository", "hostless", "{}");
  host_.PutText("repository", "empty", R"({"host_id":""})");
  host_.PutText("repository", "odd", R"({"host_id":7})");
  host_.PutText("repository", "list", "[]");
  host_.PutText("repository", "damaged", "{");
  for (const char* record :
       {"{}", R"({"repository_id":7})", R"({"repository_id":""})", R"({"repository_id":"none"})",
        R"({"repository_id":"hostless"})", R"({"repository_id":"empty"})", R"({"repository_id":"odd"})",
        R"({"repository_id":"list"})", R"({"repository_id":"damaged"})", R"({"repository_id":"../repository/r"})"}) {
    host_.PutText("guest", "g", record);
    EXPECT_EQ(vgConfRepoHostIdGet("g", host), -1) << record;
  }
  EXPECT_EQ(host, "before");
  host_.PutText("guest", "g", R"({"repository_id":"r","host_id":"other"})");
  EXPECT_EQ(vgConfRepoHostIdGet("g", host), 0);
  EXPECT_EQ(host, "h");
  host_.store().FailReadsOf(TestHost::ObjectKey("repository", "r"));
  EXPECT_EQ(vgConfRepoHostIdGet("g", host), -1);
}

TEST_F(LocalConfig, Guest_DatabaseReportedInaccessible_CanBeRead) {
  host_.PutText("guest", "g", R"({"host_id":"h","repository_id":"r","state":"guest_running"})");
  host_.PutText("repository", "r", R"({"host_id":"h"})");
  host_.store().ReportHealth(store::Health::kInaccessible);
  Json::Value conf;
  std::string text;
  EXPECT_EQ(vgConfGet("g", conf), 0);
  EXPECT_EQ(vgConfStateGet("g", text), 0);
  EXPECT_EQ(vgConfHostGet("g", text), 0);
  EXPECT_EQ(vgConfRepoHostIdGet("g", text), 0);
}

// A guest that ends while the database is lost is not shown as running.
TEST_F(LocalConfig, State_NotStored_IsKnownWhileDatabaseIsLost) {
  host_.PutText("guest", "g", R"({"host_id":"h","state":"guest_running"})");
  host_.store().ReportHealth(store::Health::kInaccessible);
  host_.store().FailCommits();
  const std::string crashed = VexaCCC::State::Guest::crashed;
  const records::Observation seen{crashed, {1, 1}, "h", std::chrono::system_clock::now()};
  EXPECT_FALSE(records::Observe(host_.store(), "g", seen).ok());
  std::string state;
  EXPECT_EQ(vgConfStateGet("g", state), 0);
  EXPECT_EQ(state, crashed);
  host_.store().Heal();
  EXPECT_EQ(vgConfStateGet("g", state), 0);
  EXPECT_EQ(state, "guest_running") << "what is stored counts again";
  ASSERT_TRUE(records::Observe(host_.store(), "g", seen).ok());
  host_.store().ReportHealth(store::Health::kInaccessible);
  EXPECT_FALSE(records::UnstoredState("g").has_value());
  EXPECT_EQ(vgConfStateGet("g", state), 0);
  EXPECT_EQ(state, crashed);
}

TEST_F(LocalConfig, Read_StoreFails_ReturnsErrorAndKeepsOutput) {
  host_.PutText("guest", "g", R"({"host_id":"h","repository_id":"r","state":"guest_running"})");
  host_.PutText("repository", "r", R"({"host_id":"h"})");
  host_.store().FailReadsOf(records::LiveStateKey("g"));
  Json::Value conf("before");
  std::string text = "before";
  EXPECT_EQ(vgConfGet("g", conf), -1);
  EXPECT_EQ(vgConfStateGet("g", text), -1);
  EXPECT_EQ(conf, "before");
  EXPECT_EQ(text, "before");
  host_.store().Heal();
  host_.store().FailReadsOf(TestHost::ObjectKey("guest", "g"));
  ExpectNothing("g");
  host_.store().Heal();
  host_.store().FailSnapshots();
  ExpectNothing("g");
}

TEST_F(LocalConfig, Guests_InOneRequest_AreFromOneSnapshot) {
  host_.PutText("guest", "g", R"({"state":"guest_shutdown"})");
  const records::RequestScope scope;
  Json::Value conf;
  ASSERT_EQ(vgConfGet("g", conf), 0);
  PutState("g", R"("guest_running")");
  host_.Remove("guest", "g");
  ASSERT_EQ(vgConfGet("g", conf), 0);
  EXPECT_EQ(conf["state"], "guest_shutdown");
}

TEST_F(LocalConfig, Scan_AllGuests_CachesNothing) {
  host_.PutText("guest", "g", R"({"name":"web","state":"guest_shutdown"})");
  const std::size_t before = records::CurrentRecordCache().bytes();
  const records::RequestScope scope;
  Json::Value conf;
  ASSERT_EQ(vgConfGet("g", conf), 0);
  std::vector<std::string> names;
  ASSERT_EQ(VexaCCC::Utils::GetNameList(VexaCCC::DB::DashCate::Guest, {"g"}, names), 0);
  EXPECT_EQ(records::CurrentRecordCache().bytes(), before);
  ASSERT_TRUE((*records::ReaderOfRequest())->ReadObject("guest", "g").ok());
  EXPECT_GT(records::CurrentRecordCache().bytes(), before);
  ASSERT_EQ(vgConfGet("g", conf), 0);
  EXPECT_EQ(conf, Parsed(R"({"name":"web","state":"guest_shutdown"})")) << "from the cache";
}

TEST_F(LocalConfig, Call_OutsideRequest_UsesNewSnapshotEachTime) {
  host_.PutText("guest", "g", R"({"state":"guest_shutdown"})");
  std::string state;
  ASSERT_EQ(vgConfStateGet("g", state), 0);
  EXPECT_EQ(records::RequestScope::Number(), 0u);
  PutState("g", R"("guest_running")");
  ASSERT_EQ(vgConfStateGet("g", state), 0);
  EXPECT_EQ(state, "guest_running");
}

TEST(LocalConfigWithoutHost, LocalConfig_NoHost_Fails) {
  Json::Value conf("before");
  std::string text = "before";
  EXPECT_EQ(vgConfGet("g", conf), -1);
  EXPECT_EQ(vgConfStateGet("g", text), -1);
  EXPECT_EQ(vgConfHostGet("g", text), -1);
  EXPECT_EQ(vgConfRepoHostIdGet("g", text), -1);
  EXPECT_EQ(conf, "before");
  EXPECT_EQ(text, "before");
}

// The cache.

constexpr std::size_t kBound = 256 << 10;
const std::string& RecordText() {
  static const std::string text = "\"" + std::string(500, 'x') + "\"";
  return text;
}

bool IsCached(records::RecordCache& cache, const std::string& key) {
  const auto first = cache.Parse(key, {1, RecordText()});
  const auto second = cache.Parse(key, {1, RecordText()});
  return first->get() == second->get();
}

TEST(RecordCacheScan, RecordCache_Scan_KeepsRecordsOfOtherReaders) {
  records::RecordCache cache(kBound);
  std::vector<records::Record> useful;
  for (const std::uint64_t reader : {1, 2}) {
    for (int i = 0; i < 10; ++i) {
      auto record = cache.Parse("useful" + std::to_string(i), {1, RecordText()}, reader);
      if (reader == 2) useful.push_back(*record);
    }
  }
  for (int pass = 3; pass < 6; ++pass) {
    for (int i = 0; i < 2000; ++i) {
      const std::string key = "guest" + std::to_string(i);
      ASSERT_TRUE(cache.Parse(key, {1, RecordText()}, static_cast<std::uint64_t>(pass)));
      // Several reads of one record by the same reader are one.
      ASSERT_TRUE(cache.Parse(key, {1, RecordText()}, static_cast<std::uint64_t>(pass)));
      ASSERT_LE(cache.bytes(), kBound);
    }
  }
  for (int i = 0; i < 10; ++i) {
    EXPECT_EQ(cache.Parse("useful" + std::to_string(i), {1, RecordText()}, 9)->get(),
              useful[static_cast<std::size_t>(i)].get());
  }
}

TEST(RecordCacheScan, RecordCache_FrequentRecordChanges_StaysCached) {
  records::RecordCache cache(kBound);
  ASSERT_TRUE(cache.Parse("repository", {1, RecordText()}, 1));
  ASSERT_TRUE(cache.Parse("repository", {1, RecordText()}, 2));
  const auto changed = cache.Parse("repository", {2, RecordText()}, 3);
  for (int i = 0; i < 2000; ++i) ASSERT_TRUE(cache.Parse("guest" + std::to_string(i), {1, RecordText()}, 4));
  EXPECT_EQ(cache.Parse("repository", {2, RecordText()}, 5)->get(), changed->get());
}

TEST(RecordCacheScan, RecordCache_OnlyFrequentRecords_MakeRoomForNewOnes) {
  records::RecordCache cache(kBound);
  for (int round = 0; round < 3; ++round) {
    for (int i = 0; i < 500; ++i) {
      const std::string key = "often" + std::to_string(i);
      EXPECT_TRUE(IsCached(cache, key)) << key;
      ASSERT_LE(cache.bytes(), kBound);
    }
  }
  EXPECT_TRUE(IsCached(cache, "new"));
  EXPECT_GT(cache.bytes(), kBound / 2);
}

TEST(RecordCacheScan, RecordCache_LargeRecord_IsCachedAmongFrequentOnes) {
  records::RecordCache cache(kBound);
  for (int i = 0; i < 500; ++i) IsCached(cache, "often" + std::to_string(i));
  // Nearly all that one shard may hold.
  const std::string large = "\"" + std::string(5000, 'x') + "\"";
  const auto first = cache.Parse("large", {1, large});
  EXPECT_EQ(cache.Parse("large", {1, large})->get(), first->get());
  EXPECT_LE(cache.bytes(), kBound);
}

}  // namespace
}  // namespace vexa::platform
