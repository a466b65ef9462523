// Why guests are off: stored with the live state, and what readers of the guest's record get.
#include "host/records/shutdown_reason.h"

#include <gtest/gtest.h>

#include <set>

#include "host/records/live_state.h"
#include "tests/support/require.h"
#include "tests/support/test_host.h"
#include "webapi/platform/ccc.h"
#include "webapi/platform/ccc_state.h"

namespace vexa::records {
namespace {

namespace states = VexaCCC::State::Guest;
using VexaCCC::DB::Dashboard;
using VexaCCC::DB::DashCate;

class ShutdownReasons : public testing::Test {
 protected:
  ShutdownReasons() { host_.PutText("guest", "g", R"({"name":"web","host_id":"a","state":"guest_running"})"); }

  void ReportState(const char* state, const std::optional<ShutdownReason>& reason = std::nullopt) {
    const Observation observation{state, {1, ++counter_}, "a", std::chrono::system_clock::now(), reason};
    EXPECT_EQ(test::Require(Observe(host_.store(), "g", observation)), ObserveResult::kStored);
  }
  static std::optional<ShutdownReason> Stored() {
    return test::Require(ReadShutdown(test::Require(Reader::OpenCurrent()), "g"));
  }
  // As both kinds of readers get it; "none" when the record has none.
  static std::string Shown() {
    Json::Value conf;
    EXPECT_EQ(vgConfGet("g", conf), 0);
    Json::Value record;
    EXPECT_EQ(Dashboard(DashCate::Guest, "g").Get(record, "object"), 0);
    EXPECT_EQ(conf, record);
    if (!conf.isMember("shutdownreasonvalue") || !conf.isMember("is_forced_shutdown")) return "none";
    return std::to_string(conf["shutdownreasonvalue"].asInt()) + (conf["is_forced_shutdown"].asBool() ? "!" : "");
  }

  test::TestHost host_;
  std::uint64_t counter_ = 0;
};

TEST_F(ShutdownReasons, Reason_Stored_IsKeptUntilGuestRuns) {
  EXPECT_EQ(Shown(), "none");
  ReportState(states::shutdown, ShutdownReason{ShutdownCause::kFenced, true});
  EXPECT_EQ(Shown(), "9!");
  ReportState(states::shutdown);
  EXPECT_EQ(Shown(), "9!") << "who knows no reason leaves the one that is there";
  ReportState(states::shutdown, ShutdownReason{ShutdownCause::kNoResources, false});
  EXPECT_EQ(Shown(), "12");
  ReportState(states::booting);
  EXPECT_EQ(Shown(), "none") << "it is not off";
  ReportState(states::crashed);
  EXPECT_EQ(Shown(), "12") << "the start came to nothing";
  ReportState(states::running);
  EXPECT_EQ(Stored(), std::nullopt);
  ReportState(states::shutdown);
  EXPECT_EQ(Shown(), "none");
}

TEST_F(ShutdownReasons, Reason_Read_ReplacesRecordMembers) {
  host_.PutText("guest", "g",
                R"({"host_id":"a","state":"guest_shutdown","shutdownreasonvalue":5,"is_forced_shutdown":true})");
  EXPECT_EQ(Shown(), "5!") << "without a live state the record's hold";
  ReportState(states::shutdown, ShutdownReason{ShutdownCause::kShutDown, false});
  EXPECT_EQ(Shown(), "2");
}

TEST_F(ShutdownReasons, ShutdownReason_Damaged_CountsAsMissing) {
  ReportState(states::shutdown);
  for (const char* live : {"{", "[]", "7", R"({"shutdown":[]})", R"({"shutdown":{"value":17}})",
                           R"({"shutdown":{"value":-1}})", R"({"shutdown":{"value":"9"}})", R"({"shutdown":{}})"}) {
    ASSERT_TRUE(host_.store().Commit({{}, {{LiveRecordKey("g"), live}}}));
    EXPECT_EQ(Shown(), "none") << live;
  }
  ASSERT_TRUE(host_.store().Commit({{}, {{LiveRecordKey("g"), R"({"shutdown":{"value":11,"forced":1}})"}}}));
  EXPECT_EQ(Shown(), "11!");
}

TEST_F(ShutdownReasons, RemoveLiveState_AlsoRemovesReason) {
  ReportState(states::shutdown, ShutdownReason{ShutdownCause::kPoweredOff, true});
  store::Transaction transaction;
  AddLiveStateRemoval(transaction, "g");
  ASSERT_TRUE(host_.store().Commit(transaction));
  EXPECT_EQ(Stored(), std::nullopt);
  EXPECT_EQ(Shown(), "none");
}

TEST(ShutdownWords, Value_Each_HasAWordOfItsOwn) {
  std::set<std::string_view> words;
  for (int value = 0; value <= 16; ++value) {
    words.insert(ShutdownCauseName(static_cast<ShutdownCause>(value)));
    const ShutdownReason reason{static_cast<ShutdownCause>(value), value % 2 == 1};
    EXPECT_EQ(ShutdownFromJson(ShutdownToJson(reason)), reason);
  }
  EXPECT_EQ(words.size(), 17u);
}

}  // namespace
}  // namespace vexa::records
