// The dashboard on a real store, and the cache of parsed records.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <set>

#include "host/base/json_parse.h"
#include "host/records/environment.h"
#include "host/records/record_cache.h"
#include "host/records/record_names.h"
#include "host/store/key.h"
#include "tests/support/test_host.h"
#include "webapi/platform/ccc.h"

namespace {

using vexa::test::Parsed;
using VexaCCC::DB::Dashboard;
using VexaCCC::DB::DashCate;

class DashboardTest : public testing::Test {
 protected:
  vexa::test::TestHost host_;
};

TEST_F(DashboardTest, StoredObject_IsFound) {
  host_.PutText("guest", "g", R"({"name":"web","state":"guest_running","n":5})");
  Json::Value object;
  EXPECT_EQ(Dashboard(DashCate::Guest, "g").Get(object, VexaCCC::DB::_k::object), 0);
  EXPECT_EQ(object["name"], "web");
}

TEST_F(DashboardTest, Dashboard_GuestRecord_ContainsLiveState) {
  const auto put_state = [&](const char* category, const std::string& text) {
    const std::string key = vexa::store::MakeKey({"dash", category, "g", "state"});
    ASSERT_TRUE(host_.store().Commit({{}, {{key, text}}}));
  };
  host_.PutText("guest", "g", R"({"name":"web","state":"guest_shutdown"})");
  put_state("guest", R"("guest_running")");
  for (int reading = 0; reading < 3; ++reading) {
    Json::Value object;
    EXPECT_EQ(Dashboard(DashCate::Guest, "g").Get(object, VexaCCC::DB::_k::object), 0);
    EXPECT_EQ(object, Parsed(R"({"name":"web","state":"guest_running"})"));
    object["name"] = "mine";  // what a reader does with its copy is not seen by the next one
  }
  for (const char* damaged : {"7", "{", "null", "[]"}) {
    put_state("guest", damaged);
    Json::Value object;
    EXPECT_EQ(Dashboard(DashCate::Guest, "g").Get(object, VexaCCC::DB::_k::object), 0);
    EXPECT_EQ(object["state"], "guest_unknown") << damaged;
  }
  host_.PutText("repository", "g", R"({"state":"repo_online"})");
  put_state("repository", R"("repo_full")");
  Json::Value other;
  EXPECT_EQ(Dashboard(DashCate::Repository, "g").Get(other, VexaCCC::DB::_k::object), 0);
  EXPECT_EQ(other["state"], "repo_full") << "as who reads the key alone is answered";
  host_.PutText("guest", "g", "[]");
  EXPECT_EQ(Dashboard(DashCate::Guest, "g").Get(other, VexaCCC::DB::_k::object), 0);
  EXPECT_EQ(other, Parsed("[]"));
  host_.store().FailReadsOf(vexa::store::MakeKey({"dash", "guest", "g", "state"}));
  EXPECT_LT(Dashboard(DashCate::Guest, "g").Get(other, VexaCCC::DB::_k::object), 0);
  EXPECT_EQ(other, Parsed("[]")) << "untouched";
}

// Reads a guest's object and its state: both give this result and leave the output alone.
void ExpectNothingRead(const testing::Matcher<int>& result) {
  Json::Value object("before");
  EXPECT_THAT(Dashboard(DashCate::Guest, "g").Get(object, VexaCCC::DB::_k::object), result);
  EXPECT_EQ(object, "before");
  std::string text = "before";
  EXPECT_THAT(Dashboard(DashCate::Guest, "g").Get(text, VexaCCC::DB::_k::state), result);
  EXPECT_EQ(text, "before");
}

TEST_F(DashboardTest, Get_MissingObject_Returns2AndKeepsOutput) { ExpectNothingRead(testing::Eq(2)); }

TEST_F(DashboardTest, Get_ReadFails_IsNegativeAndKeepsOutput) {
  host_.PutText("guest", "g", R"({"state":"x"})");
  host_.store().FailReadsOf(host_.ObjectKey("guest", "g"));
  ExpectNothingRead(testing::Lt(0));
}

TEST_F(DashboardTest, Member_IsFoundByItsKey) {
  host_.PutText("guest", "g", R"({"state":"guest_running","n":5,"null":null})");
  std::string text;
  EXPECT_EQ(Dashboard(DashCate::Guest, "g").Get(text, "state"), 0);
  EXPECT_EQ(text, "guest_running");
  EXPECT_EQ(Dashboard(DashCate::Guest, "g").Get(text, "n"), 2) << "no string";
  Json::Value value;
  EXPECT_EQ(Dashboard(DashCate::Guest, "g").Get(value, "n"), 0);
  EXPECT_EQ(value, 5);
  EXPECT_EQ(Dashboard(DashCate::Guest, "g").Get(value, "null"), 0);
  EXPECT_EQ(Dashboard(DashCate::Guest, "g").Get(value, "absent"), 2);
}

TEST_F(DashboardTest, Get_SeparateKey_OverridesMember) {
  host_.PutText("guest", "g", R"({"state":"old"})");
  ASSERT_TRUE(host_.store().Commit({{}, {{vexa::store::MakeKey({"dash", "guest", "g", "state"}), "\"new\""}}}));
  std::string text;
  EXPECT_EQ(Dashboard(DashCate::Guest, "g").Get(text, "state"), 0);
  EXPECT_EQ(text, "new");
}

TEST_F(DashboardTest, Dashboard_List_ReturnsOnlyIdsOfCategory) {
  std::vector<std::string> ids{"before"};
  EXPECT_EQ(DashCate::Guest.List(ids), 0);
  EXPECT_TRUE(ids.empty());
  for (const char* id : {"a", "a/b", "..", "", "%", "ü"}) host_.PutText("guest", id, "{}");
  host_.PutText("vnic", "other", "{}");
  EXPECT_EQ(DashCate::Guest.List(ids), 0);
  EXPECT_EQ(std::set<std::string>(ids.begin(), ids.end()), (std::set<std::string>{"a", "a/b", "..", "", "%", "ü"}));
  host_.store().FailSnapshots();
  EXPECT_LT(DashCate::Guest.List(ids), 0);
  EXPECT_EQ(ids.size(), 6u);
}

TEST_F(DashboardTest, Get_HostileId_IsNotFound) {
  host_.PutText("guest", "g", R"({"name":"secret"})");
  for (const std::string& id : std::vector<std::string>{"../guest/g", "g/object", "g/", "/g", "%67", {"g\0", 2}}) {
    Json::Value object;
    EXPECT_EQ(Dashboard(DashCate::vDisk, id).Get(object, "object"), 2);
    EXPECT_EQ(Dashboard(DashCate::Guest, id).Get(object, "object"), 2);
  }
  Json::Value object;
  EXPECT_EQ(Dashboard(DashCate::Guest, std::string(100'000, 'x')).Get(object, "object"), 2);
}

TEST_F(DashboardTest, Children_AreListed) {
  for (const char* nic : {"eth0", "eth1"}) {
    ASSERT_TRUE(host_.store().Commit({{}, {{vexa::store::MakeKey({"dash", "host", "h", "nics", nic}), "{}"}}}));
  }
  std::vector<std::string> ids;
  EXPECT_EQ(Dashboard(DashCate::Host, "h").Ls(ids, VexaCCC::DB::_k::nics), 0);
  EXPECT_EQ(ids, (std::vector<std::string>{"eth0", "eth1"}));
  EXPECT_EQ(Dashboard(DashCate::Host, "none").Ls(ids, VexaCCC::DB::_k::nics), 0);
  EXPECT_TRUE(ids.empty());
}

TEST(Dashboard, NoEnvironment_EverythingFails) {
  Json::Value object;
  std::vector<std::string> ids;
  std::set<std::string> granted;
  EXPECT_LT(Dashboard(DashCate::Guest, "g").Get(object, "object"), 0);
  EXPECT_LT(DashCate::Guest.List(ids), 0);
  EXPECT_LT(VexaCCC::gaIsAdvancedUser("x"), 0);
  EXPECT_NE(VexaCCC::gaUserListAvail("x", "guest", granted), 0);
  EXPECT_EQ(VexaCCC::DB::DBLocalhostID(), "");
}

TEST(Constants, StateTexts_AreDistinctAcrossAllKinds) {
  namespace s = VexaCCC::State;
  const char* const all[] = {s::Host::running,       s::Host::inaccessible, s::Version::unknown,
                             s::Repo::online,        s::Repo::inaccessible, s::Guest::running,
                             s::Guest::inaccessible, s::Guest::unknown,     s::vDisk::online,
                             s::vDisk::inaccessible, s::HAGroup::normal,    s::Etcd::inaccessible};
  std::set<std::string> distinct(std::begin(all), std::end(all));
  EXPECT_EQ(distinct.size(), std::size(all));
  EXPECT_STREQ(s::Guest::running, "guest_running");
  EXPECT_STREQ(VexaCCC::DB::_k::shutdownreasonvalue, "shutdownreasonvalue");
}

// The cache.

using vexa::records::RecordCache;

TEST(InternedNames, InternedNames_AnyRecord_EqualsParsedWithoutInterning) {
  for (const char* text : {R"({"name":"web","vdisks":["d"],"usual":{"name":1},"unusual \u0000":null,"":2,"nam":3})",
                           "{}", "[1]", "null", R"("name")"}) {
    auto shared = vexa::ParseJson(text, vexa::records::InternedName);
    ASSERT_TRUE(shared.ok());
    EXPECT_EQ(*shared, Parsed(text));
    const Json::Value copy = *shared;
    *shared = Json::Value();
    EXPECT_EQ(copy, Parsed(text)) << "copies stand alone";
  }
  EXPECT_EQ(vexa::records::InternedName("name"), vexa::records::InternedName(std::string("name")));
  EXPECT_EQ(vexa::records::InternedName("no usual name"), nullptr);
}

TEST(RecordCache, RecordCache_SameRevision_IsParsedOnce) {
  RecordCache cache(1 << 20);
  const auto first = cache.Parse("k", {1, "{\"a\":1}"});
  const auto second = cache.Parse("k", {1, "{\"a\":1}"});
  ASSERT_TRUE(first.ok() && second.ok());
  EXPECT_EQ(first->get(), second->get());
}

TEST(RecordCache, RecordCache_NewRevision_IsParsedAndNotEvictedByOldReader) {
  RecordCache cache(1 << 20);
  ASSERT_TRUE(cache.Parse("k", {1, "1"}));
  const auto newer = cache.Parse("k", {2, "2"});
  EXPECT_EQ(**newer, 2);
  EXPECT_EQ(**cache.Parse("k", {1, "1"}), 1);
  EXPECT_EQ(cache.Parse("k", {2, "2"})->get(), newer->get());
}

TEST(RecordCache, RecordCache_ManyRecords_StaysWithinLimit) {
  constexpr std::size_t kBound = 256 << 10;
  RecordCache cache(kBound);
  const std::string text = "\"" + std::string(500, 'x') + "\"";
  for (int i = 0; i < 1000; ++i) {
    ASSERT_TRUE(cache.Parse("k" + std::to_string(i), {1, text}));
    ASSERT_LE(cache.bytes(), kBound);
  }
  EXPECT_GT(cache.bytes(), kBound / 2);
}

TEST(RecordCache, RecordCache_RecordAboveLimit_IsServedUncached) {
  RecordCache cache(1024);
  const std::string text = "\"" + std::string(5000, 'x') + "\"";
  EXPECT_TRUE(cache.Parse("k", {1, text}));
  EXPECT_EQ(cache.bytes(), 0u);
}

TEST(RecordCache, RecordCache_DamagedText_ErrorNamesKey) {
  RecordCache cache(1 << 20);
  const auto damaged = cache.Parse("/dash/guest/g/object", {1, "{"});
  ASSERT_FALSE(damaged.ok());
  EXPECT_EQ(damaged.error().code(), vexa::ErrorCode::kCorrupt);
  EXPECT_NE(damaged.error().message().find("/dash/guest/g/object"), std::string::npos);
}

TEST(IsUuid, IsUuid_OtherForms_AreRefused) {
  EXPECT_TRUE(VexaCCC::Utils::isUUID("8f14e45f-ceea-467f-a9d1-0f2b6c1e4a01"));
  EXPECT_TRUE(VexaCCC::Utils::isUUID("8F14E45F-CEEA-467F-A9D1-0F2B6C1E4A01"));
  for (const char* text : {"", "8f14e45f", "8f14e45fceea467fa9d10f2b6c1e4a01", "{8f14e45f-ceea-467f-a9d1-0f2b6c1e4a01}",
                           "8f14e45f-ceea-467f-a9d1-0f2b6c1e4a01\n", "8f14e45f-ceea-467f-a9d1-0f2b6c1e4a0-",
                           "--------------------------------------", "8f14e45f/ceea-467f-a9d1-0f2b6c1e4a01"}) {
    EXPECT_FALSE(VexaCCC::Utils::isUUID(text)) << text;
  }
  EXPECT_TRUE(VexaCCC::Utils::IsNotEmpty(" "));
  EXPECT_FALSE(VexaCCC::Utils::IsNotEmpty(""));
}

}  // namespace
