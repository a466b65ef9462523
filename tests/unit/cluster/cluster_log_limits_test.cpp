// What the cluster log keeps: limits of number, age and user, repeated refusals, and damaged bookkeeping.
#include <fmt/format.h>

#include <atomic>
#include <thread>

#include "host/base/json_parse.h"
#include "host/cluster/log_state.h"
#include "json/readers.h"
#include "tests/unit/cluster/cluster_log_fixture.h"

namespace vexa::cluster {
namespace {

class ClusterLogLimits : public ClusterLogTest {
 protected:
  static constexpr int kFull = static_cast<int>(kMaxLogEntries);
  static constexpr int kShare = static_cast<int>(kLogShare);

  // A full log of an older version.
  void FillUp() { Fill(kNow, kFull); }

  void AddAs(const std::string& host_id, std::int64_t time_us, const std::string& text) {
    AddEntry({time_us, host_id, "eve", CLOG_PRIORITY_SUCCESS, text, ""});
  }

  // The count in the first record below `prefix`.
  std::size_t CountIn(const std::string& prefix) {
    return json::UInt64(json::Member(Require(ParseJson(StoredBelow(prefix)[0].second)), "count"));
  }

  // From many threads, so that entries share commits.
  void Flood(const std::string& user, int count, int priority = CLOG_PRIORITY_SUCCESS) {
    constexpr int kThreads = 32;
    std::atomic<int> next = 0;
    std::vector<std::jthread> threads;
    for (int thread = 0; thread < kThreads; ++thread) {
      threads.emplace_back([&] {
        for (int i = next++; i < count; i = next++) {
          const LogEntry entry{kNow + 20'000 + i, "h1", user, priority, fmt::format("Entry {}.", i), ""};
          EXPECT_TRUE(AddLogEntry(host_.store(), entry).ok());
        }
      });
    }
  }
};

TEST_F(ClusterLogLimits, Add_LogFull_RemovesOldestEntry) {
  Fill(kNow, kFull - 1);
  Add(kNow + 20'000);
  EXPECT_EQ(Stored().size(), kMaxLogEntries);
  EXPECT_EQ(Stored().front().first, LogEntryKey(kNow));
  Add(kNow + 30'000);
  const auto stored = Stored();
  EXPECT_EQ(stored.size(), kMaxLogEntries);
  EXPECT_EQ(stored.front().first, LogEntryKey(kNow + 1));
  EXPECT_EQ(stored.back().first, LogEntryKey(kNow + 30'000));
}

TEST_F(ClusterLogLimits, Add_LogOverfull_ShrinksStepByStep) {
  Fill(kNow, kFull + 8);
  Add(kNow + 20'000);
  EXPECT_EQ(Stored().size(), kMaxLogEntries + 8 + 1 - 4) << "a commit does not grow with the backlog";
  Add(kNow + 20'001);
  Add(kNow + 20'002);
  EXPECT_EQ(Stored().size(), kMaxLogEntries);
}

TEST_F(ClusterLogLimits, ClusterLog_InvalidEntries_AreNeitherReturnedNorTrimmed) {
  const std::vector<std::string> strange{"/log/0", "/log/zzz", "/log/0000000000000000000x", LogEntryKey(1) + "/more"};
  for (const std::string& key : strange) PutRaw(key, R"({"text":"strange"})");
  FillUp();
  Add(kNow + 20'000);
  const auto stored = Stored();
  EXPECT_EQ(stored.size(), kMaxLogEntries + strange.size());
  for (const std::string& key : strange) {
    EXPECT_TRUE(std::ranges::any_of(stored, [&](const auto& one) { return one.first == key; })) << key;
  }
  for (const LogEntry& entry : Require(ReadLog("", 1000)).entries) EXPECT_NE(entry.text, "strange");
}

TEST_F(ClusterLogLimits, Add_UserWithAShareOfAFullLog_ReplacesOnlyOwnEntries) {
  FillUp();
  Flood("mallory", kShare);
  EXPECT_EQ(CountOf("mallory"), kShare);
  Add(kNow, "of the other", "alice");
  Flood("mallory", 200);
  EXPECT_EQ(CountOf("mallory"), kShare);
  EXPECT_EQ(CountOf("alice"), 1);
  EXPECT_EQ(CountOf("admin"), kFull - kShare - 1);
  EXPECT_EQ(Stored().size(), kMaxLogEntries);
}

// While there was room, the share did not bound the user, and then everybody's new entries pushed out everybody's old
// ones.
TEST_F(ClusterLogLimits, Add_LogFilledByOneUser_OthersKeepTheirEntries) {
  Flood("bob", 100);
  Flood("mallory", kFull - 100);
  Flood("alice", 200);
  EXPECT_EQ(CountOf("bob"), 100);
  EXPECT_EQ(CountOf("alice"), 200);
  EXPECT_EQ(CountOf("mallory"), kFull - 300);
}

TEST_F(ClusterLogLimits, Add_OnlyUser_HasTheWholeLog) {
  FillUp();
  Flood("admin", kShare + 50);
  EXPECT_EQ(CountOf("admin"), kFull);
}

// Age.

TEST_F(ClusterLogLimits, Add_EntriesOlderThanAYear_AreRemoved) {
  Fill(kNow - kYearUs - 5 * kSecondUs, 1);
  Fill(kNow - kYearUs - 1, 2);
  for (int i = 0; i < 15; ++i) Add(kNow + i, std::to_string(i));
  EXPECT_EQ(Stored().size(), 18u) << "not yet enough times that agree";
  Add(kNow, "x");
  EXPECT_EQ(Stored().size(), 17u);
  EXPECT_EQ(Stored()[0].first, LogEntryKey(kNow - kYearUs)) << "exactly a year";
}

TEST_F(ClusterLogLimits, Add_OneEntryDatedYearsAhead_NeitherRemovesNorHidesOthers) {
  Fill(kNow, 20);
  for (int i = 0; i < 20; ++i) Add(kNow + 100 + i, "before");
  Add(kNow + 10 * kYearUs, "ahead");
  const std::int64_t seen = All().back().position;
  for (int i = 0; i < 20; ++i) Add(kNow + 200 + i, fmt::format("after {}", i));
  EXPECT_EQ(Stored().size(), 61u);
  EXPECT_EQ(Require(ReadLogAfter(seen, 100)).size(), 20u);
  EXPECT_EQ(All().back().text, "after 19");
  EXPECT_EQ(All().back().time_us, kNow + 219);
}

TEST_F(ClusterLogLimits, Add_ManyEntriesOfOneHostDatedYearsAhead_RemoveAndHideNoneOfOthers) {
  for (int i = 0; i < 10; ++i) AddAs("h1", kNow + i, "of h1");
  for (int i = 0; i < 10; ++i) AddAs("h3", kNow + 20 + i, "of h3");
  const std::int64_t seen = All().back().position;
  for (int i = 0; i < 40; ++i) AddAs("h2", kNow + 10 * kYearUs + i, "ahead");
  AddAs("h1", kNow + 50, "of h1");
  for (int i = 0; i < 40; ++i) AddAs("h2", kNow + 11 * kYearUs + i, "ahead");
  EXPECT_EQ(std::ranges::count(All(), "of h1", &LogEntry::text), 11);
  EXPECT_EQ(std::ranges::count(All(), "of h3", &LogEntry::text), 10);
  EXPECT_EQ(Require(ReadLogAfter(seen, 100)).size(), 81u);
}

// Its bookkeeping did not say whose the times were.
TEST_F(ClusterLogLimits, Add_OneHostDatedYearsAheadAfterAnUpgrade_RemovesNoneOfOthers) {
  Fill(kNow, 20);
  Json::Value state(Json::objectValue);
  state["count"] = 20;
  state["last"] = Json::Int64{kNow + 19};
  for (int i = 0; i < 16; ++i) state["times"].append(Json::Int64{kNow + 10 * kYearUs});
  PutRaw("/log_state", json::ToText(state));
  for (int i = 0; i < 40; ++i) AddAs("h2", kNow + 10 * kYearUs + i, "ahead");
  EXPECT_EQ(std::ranges::count(All(), "old", &LogEntry::text), 20);
}

TEST_F(ClusterLogLimits, Add_TwoHostsAYearLater_RemoveOldEntries) {
  for (int i = 0; i < 4; ++i) AddAs("h3", kNow + i, "of h3");
  for (int i = 0; i < 16; ++i) AddAs("h1", kNow + 2 * kYearUs + i, "of h1");
  EXPECT_EQ(std::ranges::count(All(), "of h3", &LogEntry::text), 4);
  for (int i = 0; i < 16; ++i) AddAs("h2", kNow + 2 * kYearUs + 20 + i, "of h2");
  EXPECT_EQ(std::ranges::count(All(), "of h3", &LogEntry::text), 0);
  EXPECT_EQ(All().size(), 32u);
}

// An entry of an older version, whose key is its time.
TEST_F(ClusterLogLimits, Add_OldEntryDatedYearsAhead_DoesNotHideNewOnes) {
  Fill(kNow, 3);
  Fill(kNow + 10 * kYearUs, 1);
  const std::int64_t seen = All().back().position;
  Add(kNow + 5, "new");
  EXPECT_EQ(TextsOf(Require(ReadLogAfter(seen, 10))), Texts{"new"});
  EXPECT_EQ(TextsOf(All()), (Texts{"old", "old", "old", "old", "new"}));
}

// Repeated refusals.

TEST_F(ClusterLogLimits, Refusals_EqualOnes_BecomeOneEntryWithACount) {
  Refuse(kNow, "Failed to reboot [web].");
  Add(kNow + 1, "in between");
  const std::int64_t seen = All().back().position;
  for (int i = 1; i < 100; ++i) Refuse(kNow + i * kSecondUs, "Failed to reboot [web].");
  const std::vector<LogEntry> all = All();
  ASSERT_EQ(TextsOf(all), (Texts{"in between", "Failed to reboot [web]."}));
  EXPECT_EQ(all[1].count, 100);
  EXPECT_EQ(all[1].first_time_us, kNow);
  EXPECT_EQ(all[1].time_us, kNow + 99 * kSecondUs);
  EXPECT_EQ(all[0].count, 1);
  EXPECT_EQ(TextsOf(Require(ReadLogAfter(seen, 10))), Texts{"Failed to reboot [web]."})
      << "followers get the new count";
}

TEST_F(ClusterLogLimits, Refusals_OtherUserHostTextTimeOrSuccess_AreKeptApart) {
  const std::int64_t window = std::chrono::microseconds(kMergeWindow).count();
  Refuse(kNow, "a");
  Refuse(kNow, "a", "bob");
  Refuse(kNow, "a", "eve", "h2");
  Refuse(kNow, "b");
  Add(kNow, "a");
  Add(kNow, "a");
  EXPECT_EQ(All().size(), 6u);
  Refuse(kNow + window, "a");
  EXPECT_EQ(All().size(), 6u) << "five minutes after the first";
  Refuse(kNow + window + 1, "a");
  EXPECT_EQ(All().size(), 7u);
}

TEST_F(ClusterLogLimits, Refusals_MoreKindsThanAreRemembered_AreBoundedByTheShare) {
  FillUp();
  Flood("eve", kShare + 100, CLOG_PRIORITY_FAILURE);
  EXPECT_EQ(CountOf("eve"), kShare);
}

TEST_F(ClusterLogLimits, Refusals_FirstOneWasTrimmed_StartAgain) {
  Refuse(kNow, "a");
  (void)Require(host_.store().Commit({{}, {{Stored()[0].first, std::nullopt}}}));
  Refuse(kNow + 1, "a");
  ASSERT_EQ(All().size(), 1u);
  EXPECT_EQ(All()[0].count, 1);
}

// Bookkeeping.

TEST_F(ClusterLogLimits, Bookkeeping_CountsDiffer_AreRecountedAfterSomeEntries) {
  for (int i = 0; i < 3; ++i) Add(kNow + i, "x", "alice");
  for (const char* key : {"/log_state", "/log_user"}) {
    const auto [name, text] = StoredBelow(key).front();
    Json::Value record = Require(ParseJson(text));
    record["count"] = 9'999;
    PutRaw(name, json::ToText(record));
  }
  for (int i = 0; i < static_cast<int>(kRecountAfter); ++i) Add(kNow + 100 + i, "x", "alice");
  const std::size_t entries = Stored().size();
  EXPECT_GE(entries, 4u);
  EXPECT_EQ(CountIn("/log_state"), entries);
  EXPECT_EQ(CountIn("/log_user"), entries);
  for (int i = 0; i < 20; ++i) Add(kNow + 1'000 + i, "x", "alice");
  EXPECT_EQ(Stored().size(), entries + 20) << "alice has room again";
}

TEST_F(ClusterLogLimits, Bookkeeping_UserWithAShareHasNoEntries_OthersMakeRoom) {
  FillUp();
  Add(kNow + 20'000, "x", "alice");
  const auto kept = StoredBelow("/log_user");
  ASSERT_EQ(kept.size(), 2u) << "alice's record, and the one for her entry";
  PutRaw(kept[0].first, R"({"count":1000})");
  (void)Require(host_.store().Commit({{}, {{kept[1].first, std::nullopt}}}));
  Add(kNow + 20'001, "y", "alice");
  EXPECT_EQ(Stored().size(), kMaxLogEntries);
  EXPECT_EQ(CountOf("alice"), 2);
  EXPECT_EQ(CountIn("/log_user"), 1u);
}

TEST_F(ClusterLogLimits, Bookkeeping_TooLong_IsCut) {
  Refuse(kNow, "a");
  for (const auto& [key, list] : {std::pair{"/log_state", "times"}, {"/log_user", "refusals"}}) {
    const auto [name, text] = StoredBelow(key).front();
    Json::Value record = Require(ParseJson(text));
    const Json::Value one = record[list][0];
    for (int i = 0; i < 1'000; ++i) record[list].append(one);
    PutRaw(name, json::ToText(record));
  }
  Refuse(kNow + 1, "b");
  EXPECT_EQ(Require(ParseJson(StoredBelow("/log_state")[0].second))["times"].size(), 16u);
  EXPECT_EQ(Require(ParseJson(StoredBelow("/log_user")[0].second))["refusals"].size(), 16u);
}

TEST_F(ClusterLogLimits, Bookkeeping_AllEntriesOfAUserTrimmed_IsRemoved) {
  Add(kNow, "x", "alice");
  Fill(kNow + 1, kFull - 1);
  (void)Require(host_.store().Commit({{}, {{"/log_state", std::nullopt}}}));
  EXPECT_EQ(StoredBelow("/log_user").size(), 2u) << "the user's record and the entry's";
  Add(kNow + 20'000, "y", "bob");
  EXPECT_EQ(CountOf("alice"), 0);
  EXPECT_EQ(StoredBelow("/log_user").size(), 2u) << "only bob's";
}

TEST_F(ClusterLogLimits, Bookkeeping_Damaged_IsDerivedFromTheEntries) {
  for (const char* damaged : {"", "nonsense", "[]", "{}", R"({"last":-1})", R"({"last":1,"count":99999999999})",
                              R"({"last":9223372036854775807,"count":0,"times":{}})",
                              R"({"last":1772366400000000,"count":1,"times":[-9223372036854775808,"x",null]})"}) {
    PutRaw("/log_state", damaged);
    for (const auto& [key, value] : StoredBelow("/log_user")) PutRaw(key, damaged);
    Refuse(kNow, "a");
    EXPECT_EQ(All().back().text, "a") << damaged;
    const auto state = Require(ParseJson(StoredBelow("/log_state")[0].second));
    EXPECT_EQ(json::Int64(json::Member(state, "last")), All().back().position) << damaged;
  }
  EXPECT_EQ(CountIn("/log_state"), Stored().size());
}

}  // namespace
}  // namespace vexa::cluster
