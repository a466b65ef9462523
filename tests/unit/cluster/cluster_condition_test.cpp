// The cluster's status, its settings, and whether it is between two versions.
#include <gtest/gtest.h>

#include <thread>
#include <vector>

#include "host/cluster/settings.h"
#include "host/records/cluster_status.h"
#include "host/records/request_scope.h"
#include "tests/support/test_host.h"
#include "webapi/platform/ccc.h"
#include "webapi/platform/ccc_state.h"

namespace vexa::cluster {
namespace {

using store::Health;
using VexaCCC::CACHE_LOAD_CLUSTER;
using VexaCCC::LoadCache;

const char kUpgrade[] = "/settings/upgrade";
const char kCluster[] = "/settings/cluster";

class ClusterCondition : public testing::Test {
 protected:
  void PutText(const std::string& key, const std::string& text) {
    ASSERT_TRUE(host_.store().Commit({{}, {{key, text}}}).ok());
  }
  std::string Text(const std::string& key) {
    const auto snapshot = host_.store().Read();
    const auto value = (*snapshot)->Get(key);
    return value->has_value() ? std::string((*value)->text) : "absent";
  }
  std::string State(int max_age_s) {
    Json::Value cache;
    EXPECT_EQ(LoadCache(cache, CACHE_LOAD_CLUSTER, max_age_s), 0);
    return cache["state"].asString();
  }

  test::TestHost host_;
};

TEST_F(ClusterCondition, Status_ReportsDatabaseAccess) {
  EXPECT_EQ(State(0), records::kDatabaseAccessible);
  host_.store().ReportHealth(Health::kInaccessible);
  EXPECT_EQ(State(0), VexaCCC::State::Etcd::inaccessible);
  host_.store().ReportHealth(Health::kReadOnly);
  EXPECT_EQ(State(0), records::kDatabaseAccessible);
  EXPECT_STRNE(records::kDatabaseAccessible, VexaCCC::State::Etcd::inaccessible);
}

TEST_F(ClusterCondition, Status_OutputHasMembers_IsAdded) {
  Json::Value cache = Parsed(R"({"other":1})");
  EXPECT_EQ(LoadCache(cache, CACHE_LOAD_CLUSTER, 10), 0);
  EXPECT_EQ(cache["other"], 1);
  EXPECT_EQ(cache["state"], records::kDatabaseAccessible);
  Json::Value array = Parsed("[1]");
  EXPECT_EQ(LoadCache(array, CACHE_LOAD_CLUSTER, 10), 0);
  EXPECT_EQ(array["state"], records::kDatabaseAccessible);
}

TEST_F(ClusterCondition, Status_UnknownCacheType_FailsAndLeavesOutputUnchanged) {
  Json::Value cache("before");
  EXPECT_LT(LoadCache(cache, static_cast<VexaCCC::CACHE_LOAD_TYPE>(1), 10), 0);
  EXPECT_LT(LoadCache(cache, static_cast<VexaCCC::CACHE_LOAD_TYPE>(-1), 10), 0);
  EXPECT_EQ(cache, "before");
}

TEST_F(ClusterCondition, Status_HundredThousandCalls_DoNotReachStore) {
  const int reads = host_.store().reads();
  const auto begin = std::chrono::steady_clock::now();
  for (int i = 0; i < 100'000; ++i) ASSERT_EQ(State(10), records::kDatabaseAccessible);
  // At most one question a second, and the first.
  const auto took = std::chrono::duration_cast<std::chrono::seconds>(std::chrono::steady_clock::now() - begin);
  EXPECT_LE(host_.store().health_reads(), 2 + took.count());
  EXPECT_EQ(host_.store().reads(), reads);
}

TEST_F(ClusterCondition, ClusterStatus_Outdated_IsRefreshed) {
  EXPECT_EQ(State(10), records::kDatabaseAccessible);
  host_.store().ReportHealth(Health::kInaccessible);
  EXPECT_EQ(State(0), VexaCCC::State::Etcd::inaccessible) << "nothing older will do";
  host_.store().Heal();
  std::this_thread::sleep_for(records::kMaxStatusAge + std::chrono::milliseconds(10));
  EXPECT_EQ(State(10), records::kDatabaseAccessible) << "although the caller would take ten seconds";
}

// Who knows that it has changed does not let a second pass in which everybody believes the old one.
TEST_F(ClusterCondition, Status_Invalidated_IsReread) {
  EXPECT_EQ(State(10), records::kDatabaseAccessible);
  host_.store().ReportHealth(Health::kInaccessible);
  records::InvalidateClusterStatus();
  EXPECT_EQ(State(10), VexaCCC::State::Etcd::inaccessible);
}

TEST_F(ClusterCondition, Status_ManyThreads_DoNotRace) {
  std::vector<std::jthread> threads;
  for (int i = 0; i < 8; ++i) {
    threads.emplace_back([this] {
      for (int n = 0; n < 1000; ++n) State(n % 2);
    });
  }
}

TEST_F(ClusterCondition, UpgradeFlag_Set_ReflectsSetting) {
  EXPECT_EQ(CCCIsIncompatibleUpgrading(), 0) << "no record";
  ASSERT_TRUE(WriteUpgradeSettings(host_.store(), {true}).ok());
  EXPECT_EQ(CCCIsIncompatibleUpgrading(), 1);
  EXPECT_EQ(Text(kUpgrade), R"({"incompatible":true})");
  ASSERT_TRUE(WriteUpgradeSettings(host_.store(), {false}).ok());
  EXPECT_EQ(CCCIsIncompatibleUpgrading(), 0);
  PutText(kUpgrade, R"({"since":1})");
  EXPECT_EQ(CCCIsIncompatibleUpgrading(), 0);
}

TEST_F(ClusterCondition, UpgradeFlag_Unreadable_IsNegative) {
  for (const char* text : {"{", "", "[]", "true", "null", R"({"incompatible":1})", R"({"incompatible":"true"})",
                           R"({"incompatible":null})"}) {
    PutText(kUpgrade, text);
    EXPECT_LT(CCCIsIncompatibleUpgrading(), 0) << text;
  }
  PutText(kUpgrade, R"({"incompatible":true})");
  host_.store().FailReadsOf(kUpgrade);
  EXPECT_LT(CCCIsIncompatibleUpgrading(), 0);
  host_.store().Heal();
  host_.store().FailSnapshots();
  EXPECT_LT(CCCIsIncompatibleUpgrading(), 0);
}

TEST_F(ClusterCondition, UpgradeFlag_IsReadOnceInARequest) {
  {
    const records::RequestScope scope;
    const int reads = host_.store().reads();
    for (int i = 0; i < 1000; ++i) ASSERT_EQ(CCCIsIncompatibleUpgrading(), 0);
    EXPECT_EQ(host_.store().reads(), reads + 2) << "the setting, and which hosts there are";
    { const records::RequestPause pause; }
    PutText(kUpgrade, R"({"incompatible":true})");
    EXPECT_EQ(CCCIsIncompatibleUpgrading(), 0) << "all guests of a request are judged alike";
  }
  const records::RequestScope next;
  EXPECT_EQ(CCCIsIncompatibleUpgrading(), 1);
  std::jthread([] { EXPECT_EQ(CCCIsIncompatibleUpgrading(), 1) << "another thread, in no request"; });
}

TEST_F(ClusterCondition, AutoSelectHost_Default_IsAllowed) {
  EXPECT_TRUE(VexaCCC::ClConfAutoSelHostGet());
  ASSERT_TRUE(WriteClusterSettings(host_.store(), {false}).ok());
  EXPECT_FALSE(VexaCCC::ClConfAutoSelHostGet());
  EXPECT_FALSE(ReadClusterSettings(*records::Reader::OpenCurrent())->auto_select_host);
  ASSERT_TRUE(WriteClusterSettings(host_.store(), {true}).ok());
  EXPECT_TRUE(VexaCCC::ClConfAutoSelHostGet());
  PutText(kCluster, R"({"other":false})");
  EXPECT_TRUE(VexaCCC::ClConfAutoSelHostGet());
}

TEST_F(ClusterCondition, AutoSelectHost_Unreadable_IsDenied) {
  for (const char* text : {"{", "[]", "null", R"({"auto_select_host":0})", R"({"auto_select_host":"false"})"}) {
    PutText(kCluster, text);
    EXPECT_FALSE(VexaCCC::ClConfAutoSelHostGet()) << text;
    EXPECT_EQ(ReadClusterSettings(*records::Reader::OpenCurrent()).error().code(), ErrorCode::kCorrupt) << text;
  }
  host_.store().FailSnapshots();
  EXPECT_FALSE(VexaCCC::ClConfAutoSelHostGet());
  EXPECT_EQ(records::Reader::OpenCurrent().error().code(), ErrorCode::kUnavailable);
}

TEST_F(ClusterCondition, Setting_Written_KeepsOthers) {
  PutText(kCluster, R"({"auto_select_host":"damaged","other":[1]})");
  ASSERT_TRUE(WriteClusterSettings(host_.store(), {false}).ok());
  EXPECT_EQ(Parsed(Text(kCluster)), Parsed(R"({"auto_select_host":false,"other":[1]})"));
  const auto revision = [this] { return (*host_.store().Read())->revision(); };
  const auto before = revision();
  ASSERT_TRUE(WriteClusterSettings(host_.store(), {false}).ok());
  EXPECT_EQ(revision(), before) << "nothing to do";
  host_.store().ConflictCommits(3);
  ASSERT_TRUE(WriteClusterSettings(host_.store(), {true}).ok());
  EXPECT_TRUE(VexaCCC::ClConfAutoSelHostGet());
}

TEST_F(ClusterCondition, Setting_WriteFails_IsUnchanged) {
  PutText(kCluster, "[]");
  EXPECT_EQ(WriteClusterSettings(host_.store(), {false}).error().code(), ErrorCode::kCorrupt);
  EXPECT_EQ(Text(kCluster), "[]");
  PutText(kCluster, "{}");
  host_.store().FailCommits();
  EXPECT_EQ(WriteClusterSettings(host_.store(), {false}).error().code(), ErrorCode::kNoSpace);
  host_.store().Heal();
  host_.store().FailReadsOf(kCluster);
  EXPECT_EQ(WriteClusterSettings(host_.store(), {false}).error().code(), ErrorCode::kInternal);
  host_.store().Heal();
  EXPECT_EQ(Text(kCluster), "{}");
}

TEST(ClusterConditionWithoutHost, ClusterCondition_StoreLost_EverythingIsUnknown) {
  Json::Value cache("before");
  EXPECT_LT(LoadCache(cache, CACHE_LOAD_CLUSTER, 10), 0);
  EXPECT_EQ(cache, "before");
  EXPECT_LT(CCCIsIncompatibleUpgrading(), 0);
  EXPECT_FALSE(VexaCCC::ClConfAutoSelHostGet());
}

}  // namespace
}  // namespace vexa::cluster
