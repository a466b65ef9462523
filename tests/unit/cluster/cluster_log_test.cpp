// The cluster log on a real store: what is added, how it is read, and what happens when it cannot be kept.
#include <syslog.h>

#include <limits>
#include <set>
#include <thread>

#include "host/base/json_parse.h"
#include "host/records/environment.h"
#include "tests/unit/cluster/cluster_log_fixture.h"

namespace vexa::cluster {
namespace {

std::string_view OddRequestId() { return "request-7"; }

class ClusterLog : public ClusterLogTest {};

// Adding.

TEST_F(ClusterLog, ClusterLog_Entry_HasUserTimeAndHost) {
  const std::int64_t before = NowUs();
  ClusterLogAdd("eve", CLOG_PRIORITY_SUCCESS, "The guest [%s] runs on [%s], %d times.", "web", "north", 7);
  const LogPage page = Require(ReadLog("", 10));
  ASSERT_EQ(page.entries.size(), 1u);
  const LogEntry& entry = page.entries[0];
  EXPECT_EQ(entry.text, "The guest [web] runs on [north], 7 times.");
  EXPECT_EQ(entry.user, "eve");
  EXPECT_EQ(entry.priority, 3);
  EXPECT_EQ(entry.host_id, records::CurrentEnvironment()->host_id);
  EXPECT_EQ(entry.request_id, "");
  EXPECT_GE(entry.time_us, before);
  EXPECT_LE(entry.time_us, NowUs());
  EXPECT_EQ(Stored()[0].first, LogEntryKey(entry.time_us));
  EXPECT_TRUE(test::CapturedSyslog().empty());
}

TEST_F(ClusterLog, Log_DuringRequest_ContainsRequestId) {
  records::Environment environment = *records::CurrentEnvironment();
  environment.request_id = OddRequestId;
  records::InstallEnvironment(std::move(environment));
  ClusterLogAdd("eve", CLOG_PRIORITY_FAILURE, "Failed.");
  const LogPage page = Require(ReadLog("", 10));
  ASSERT_EQ(page.entries.size(), 1u);
  EXPECT_EQ(page.entries[0].request_id, "request-7");
  EXPECT_EQ(page.entries[0].priority, 1);
}

TEST_F(ClusterLog, Log_DuringRequest_IsVisibleToItsLaterReads) {
  const records::RequestScope scope;
  EXPECT_TRUE(Require(ReadLog("", 10)).entries.empty());
  ClusterLogAdd("eve", CLOG_PRIORITY_FAILURE, "One.");
  ClusterLogAdd("eve", CLOG_PRIORITY_FAILURE, "Two.");
  const LogPage page = Require(ReadLog("", 10));
  ASSERT_EQ(page.entries.size(), 2u);
  EXPECT_EQ(page.entries[0].text, "Two.");
  EXPECT_EQ(page.entries[1].text, "One.");
}

TEST_F(ClusterLog, Add_ClockBehind_FollowsEarlierEntries) {
  Add(kNow, "a");
  Add(kNow, "b");
  Add(kNow - kYearUs, "c");
  Add(kNow + 10, "d");
  EXPECT_EQ(PositionsOf(All()), (Numbers{kNow, kNow + 1, kNow + 2, kNow + 10}));
  EXPECT_EQ(TextsOf(All()), (Texts{"a", "b", "c", "d"}));
  EXPECT_EQ(All()[2].time_us, kNow - kYearUs) << "its own time is kept";
}

// Positions must last, whatever the clocks say.
TEST_F(ClusterLog, Add_ClockFarAhead_CountsOn) {
  Add(kNow, "a");
  Add(std::numeric_limits<std::int64_t>::max(), "b");
  Add(kNow, "c");
  EXPECT_EQ(PositionsOf(All()), (Numbers{kNow, kNow + 1, kNow + 2}));
}

TEST_F(ClusterLog, Add_CommitConflicts_IsRetried) {
  host_.store().ConflictCommits(5);
  Add(kNow);
  EXPECT_EQ(Stored().size(), 1u);
}

TEST_F(ClusterLog, Add_ConcurrentInSameMicrosecond_LosesNothing) {
  constexpr int kThreads = 4;
  constexpr int kEach = 25;
  std::vector<std::thread> threads;
  for (int thread = 0; thread < kThreads; ++thread) {
    threads.emplace_back([this, thread] {
      for (int i = 0; i < kEach; ++i) Add(kNow, std::to_string(thread) + "/" + std::to_string(i));
    });
  }
  for (std::thread& thread : threads) thread.join();
  std::set<std::string> texts;
  for (const LogEntry& entry : Require(ReadLog("", 1000)).entries) texts.insert(entry.text);
  EXPECT_EQ(texts.size(), static_cast<std::size_t>(kThreads * kEach));
}

TEST_F(ClusterLog, Add_TimeBefore1970_IsRefused) {
  LogEntry entry;
  entry.time_us = -1;
  const Status added = AddLogEntry(host_.store(), entry);
  ASSERT_FALSE(added.ok());
  EXPECT_EQ(added.error().code(), ErrorCode::kInvalid);
}

// Hostile texts.

TEST_F(ClusterLog, Add_HostileTexts_AreBoundedAndOnOneLine) {
  const std::string bad("a\n\0\x1B[2J\xFF\xC2\x85\"\\", 12);
  for (const std::string& text : {bad, std::string(9000, '"'), std::string(9000, '\\'), std::string(1 << 20, 'x'),
                                  std::string(5000, '\n'), std::string(5000, '\xFF')}) {
    for (const std::string& name : {std::string("eve"), std::string(100'000, '"'), bad}) {
      LogEntry entry{kNow, name, name, 3, text, name};
      ASSERT_TRUE(AddLogEntry(host_.store(), entry).ok());
      ClusterLogAdd(name, CLOG_PRIORITY_FAILURE, "%s", text.c_str());
    }
  }
  const auto stored = Stored();
  EXPECT_EQ(stored.size(), 36u);
  for (const auto& [key, value] : stored) {
    EXPECT_LE(value.size(), kMaxLogEntryBytes);
    EXPECT_TRUE(ParseJson(value).ok()) << value;
    EXPECT_EQ(value.find('\n'), std::string::npos);
  }
  for (const LogEntry& entry : Require(ReadLog("", 1000)).entries) {
    for (const std::string& text : {entry.text, entry.user, entry.host_id, entry.request_id}) {
      EXPECT_TRUE(IsValidUtf8(text));
      for (const char c : text) EXPECT_FALSE(static_cast<unsigned char>(c) < 0x20 || c == 0x7F) << text;
    }
  }
  EXPECT_TRUE(test::CapturedSyslog().empty());
}

TEST_F(ClusterLog, Add_LongText_KeepsItsBeginning) {
  Add(kNow, "begin " + std::string(9000, 'x'));
  const LogPage page = Require(ReadLog("", 1));
  ASSERT_EQ(page.entries.size(), 1u);
  EXPECT_TRUE(page.entries[0].text.starts_with("begin xxx"));
  EXPECT_TRUE(page.entries[0].text.ends_with("x…"));
  EXPECT_GT(page.entries[0].text.size(), 3000u) << "a cut that is not needed";
}

// Reading.

TEST_F(ClusterLog, Read_Pages_AreNewestFirst) {
  for (const int time : {30, 10, 50, 20, 40}) Add(time, std::to_string(time));
  LogPage page = Require(ReadLog("", 2));
  EXPECT_EQ(TextsOf(page.entries), (Texts{"40", "20"}));
  Add(60, "60");  // what is added in between moves nothing
  page = Require(ReadLog(page.next, 2));
  EXPECT_EQ(TextsOf(page.entries), (Texts{"50", "10"}));
  page = Require(ReadLog(page.next, 2));
  EXPECT_EQ(TextsOf(page.entries), (Texts{"30"}));
  EXPECT_EQ(page.next, "");
  EXPECT_EQ(Require(ReadLog("", 6)).next, "") << "all there are";
  EXPECT_EQ(TextsOf(Require(ReadLog("", 0)).entries), (Texts{"60"})) << "a page has one entry at least";
}

TEST_F(ClusterLog, Read_EmptyLog_IsAnEmptyPage) {
  const LogPage page = Require(ReadLog("", 10));
  EXPECT_TRUE(page.entries.empty());
  EXPECT_EQ(page.next, "");
}

TEST_F(ClusterLog, Read_LargePage_IsTruncated) {
  Fill(kNow, 1500);
  const LogPage page = Require(ReadLog("", 100'000));
  EXPECT_EQ(page.entries.size(), kMaxLogPage);
  const LogPage rest = Require(ReadLog(page.next, 100'000));
  EXPECT_EQ(rest.entries.size(), 500u);
  EXPECT_EQ(rest.next, "");
}

TEST_F(ClusterLog, ClusterLog_CursorOfTrimmedEntry_StaysValid) {
  for (const int time : {10, 20, 30}) Add(time, std::to_string(time));
  const LogPage page = Require(ReadLog("", 2));
  (void)Require(host_.store().Commit({{}, {{LogEntryKey(20), std::nullopt}}}));
  EXPECT_EQ(TextsOf(Require(ReadLog(page.next, 2)).entries), (Texts{"10"}));
}

TEST_F(ClusterLog, Read_InvalidCursor_IsRefused) {
  const std::string good(20, '0');
  EXPECT_TRUE(ReadLog(good, 10).ok());
  for (const std::string& cursor :
       {std::string("x"), std::string("1"), good + "0", "../" + good.substr(3), "-" + good.substr(1),
        good.substr(1) + std::string(1, '\0'), std::string(" "), std::string(20, '9')}) {
    const auto page = ReadLog(cursor, 10);
    ASSERT_FALSE(page.ok()) << cursor;
    EXPECT_EQ(page.error().code(), ErrorCode::kInvalid);
  }
}

TEST_F(ClusterLog, Read_DamagedEntries_AreOmitted) {
  Add(10, "good");
  for (const auto& [time, text] : std::vector<std::pair<int, std::string>>{{20, "nonsense"}, {30, "[1]"}, {40, ""}}) {
    PutRaw(LogEntryKey(time), text);
  }
  PutRaw(LogEntryKey(50), R"({"time_us":"x","host_id":[],"user":{},"priority":"3","text":null,"request_id":7})");
  LogPage page = Require(ReadLog("", 2));
  ASSERT_EQ(page.entries.size(), 1u);
  EXPECT_EQ(page.entries[0].request_id, "7");
  EXPECT_EQ(page.entries[0].priority, 0);
  page = Require(ReadLog(page.next, 2));
  EXPECT_TRUE(page.entries.empty());
  page = Require(ReadLog(page.next, 2));
  ASSERT_EQ(page.entries.size(), 1u);
  EXPECT_EQ(page.entries[0].text, "good");
}

// Following.

TEST_F(ClusterLog, ReadAfter_Position_ReturnsLaterEntriesOldestFirst) {
  const auto texts = [](std::int64_t after, std::size_t limit) { return TextsOf(Require(ReadLogAfter(after, limit))); };
  for (const int time : {10, 20, 15, 40}) Add(time, std::to_string(time));
  EXPECT_EQ(PositionsOf(All()), (Numbers{10, 20, 21, 40}));
  EXPECT_EQ(texts(20, 10), (Texts{"15", "40"})) << "without the entry at that position";
  EXPECT_EQ(texts(0, 2), (Texts{"10", "20"}));
  EXPECT_EQ(texts(0, 0), (Texts{"10"})) << "a page has one entry at least";
  EXPECT_EQ(texts(40, 10), Texts());
  EXPECT_EQ(texts(std::numeric_limits<std::int64_t>::max(), 10), Texts());
  ASSERT_FALSE(ReadLogAfter(-1, 10).ok());
  EXPECT_EQ(ReadLogAfter(-1, 10).error().code(), ErrorCode::kInvalid);
}

// Clients of older versions continue after a time.
TEST_F(ClusterLog, ReadAfter_TimeOfAnEntry_MissesNone) {
  Add(100, "a");
  Add(50, "b");
  Add(60, "c");
  EXPECT_EQ(TextsOf(Require(ReadLogAfter(100, 10))), (Texts{"b", "c"}));
  const Texts after_b = TextsOf(Require(ReadLogAfter(50, 10)));
  EXPECT_TRUE(std::ranges::count(after_b, "c")) << "maybe with entries that are known";
}

TEST_F(ClusterLog, ReadAfter_LargeLog_IsTruncated) {
  Fill(kNow, 1500);
  const auto first = Require(ReadLogAfter(0, 100'000));
  ASSERT_EQ(first.size(), kMaxLogPage);
  EXPECT_EQ(Require(ReadLogAfter(first.back().position, 100'000)).size(), 500u);
}

TEST_F(ClusterLog, ClusterLog_DamagedEntries_AreSkipped) {
  PutRaw(LogEntryKey(20), "nonsense");
  PutRaw(LogEntryKey(30), R"({"time_us":5,"text":"liar"})");
  PutRaw("/log/99999999999999999999", R"({"text":"beyond all time"})");
  Add(40, "good");
  const auto entries = Require(ReadLogAfter(0, 2));
  ASSERT_EQ(entries.size(), 2u);
  EXPECT_EQ(entries[0].position, 30) << "the key's, whatever the entry says";
  EXPECT_EQ(entries[1].text, "good");
  EXPECT_TRUE(Require(ReadLogAfter(40, 2)).empty());
}

// Failures.

TEST_F(ClusterLog, Add_CommitFails_IsInSystemLog) {
  host_.store().FailCommits();
  EXPECT_NO_THROW(ClusterLogAdd("eve", CLOG_PRIORITY_FAILURE, "Failed to start [%s].", "w\neb"));
  const auto lines = test::CapturedSyslog();
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0].level(), LOG_ERR);
  EXPECT_TRUE(lines[0].text.starts_with("The cluster log cannot be written: ")) << lines[0].text;
  EXPECT_TRUE(lines[0].text.ends_with(". The line was: Failed to start [w eb].")) << lines[0].text;
  host_.store().Heal();
  EXPECT_TRUE(Stored().empty());
}

TEST_F(ClusterLog, Read_StoreUnreadable_IsLoggedAndAnError) {
  host_.store().FailSnapshots();
  EXPECT_NO_THROW(ClusterLogAdd("eve", CLOG_PRIORITY_FAILURE, "Failed."));
  EXPECT_TRUE(test::SyslogContains("The cluster log cannot be written: "));
  EXPECT_FALSE(ReadLog("", 10).ok());
  EXPECT_FALSE(ReadLogAfter(0, 10).ok());
}

TEST_F(ClusterLog, ClusterLog_ConstantConflicts_GivesUpWithALogLine) {
  host_.store().ConflictCommits(1'000'000);
  EXPECT_NO_THROW(ClusterLogAdd("eve", CLOG_PRIORITY_FAILURE, "Failed."));
  EXPECT_TRUE(test::SyslogContains("The cluster log cannot be written: "));
}

TEST_F(ClusterLog, Read_NoEnvironment_FailsWithALogLine) {
  records::RemoveEnvironment();
  EXPECT_NO_THROW(ClusterLogAdd("eve", CLOG_PRIORITY_FAILURE, "Failed."));
  EXPECT_TRUE(test::SyslogContains("The cluster log cannot be written: The cluster database is not open"));
  EXPECT_FALSE(ReadLog("", 10).ok());
  EXPECT_FALSE(ReadLogAfter(0, 10).ok());
}

}  // namespace
}  // namespace vexa::cluster
