// The cluster log on a real store: what is kept, for how long, how it is read, and what happens when it cannot be kept.
#include "host/cluster/cluster_log.h"

#include <gtest/gtest.h>
#include <syslog.h>

#include <algorithm>
#include <chrono>
#include <limits>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "host/base/json_parse.h"
#include "host/records/environment.h"
#include "host/records/request_scope.h"
#include "tests/support/require.h"
#include "tests/support/syslog_capture.h"
#include "tests/support/test_host.h"
#include "webapi/platform/ccc_log.h"

namespace vexa::cluster {
namespace {

using VexaCCC::CLOG_PRIORITY_FAILURE;
using VexaCCC::CLOG_PRIORITY_SUCCESS;
using VexaCCC::ClusterLogAdd;

using Timestamps = std::vector<std::int64_t>;

// As the request reads it.
Result<LogPage> ReadLog(const std::string& cursor, std::size_t limit) {
  const auto reader = records::ReaderOfRequest();
  if (!reader) return reader.error();
  return cluster::ReadLog(**reader, cursor, limit);
}

Result<std::vector<LogEntry>> ReadLogAfter(std::int64_t after_us, std::size_t limit) {
  const auto reader = records::ReaderOfRequest();
  if (!reader) return reader.error();
  return cluster::ReadLogAfter(**reader, after_us, limit);
}

constexpr std::int64_t kYearUs = std::int64_t{365} * 24 * 3600 * 1'000'000;

std::int64_t NowUs() {
  const auto now = std::chrono::system_clock::now().time_since_epoch();
  return std::chrono::duration_cast<std::chrono::microseconds>(now).count();
}

// The real time: lines that the log gives their time itself must not be a year away.
const std::int64_t kNow = NowUs();

std::string_view OddRequestId() { return "request-7"; }

class ClusterLog : public testing::Test {
 protected:
  void SetUp() override { test::ClearCapturedSyslog(); }

  static std::string KeyAt(std::int64_t time_us) {
    const std::string digits = std::to_string(time_us);
    return "/log/" + std::string(20 - digits.size(), '0') + digits;
  }
  void Add(std::int64_t time_us, const std::string& text = "text") {
    LogEntry entry;
    entry.time_us = time_us;
    entry.text = text;
    const Status added = AddLogEntry(host_.store(), entry);
    ASSERT_TRUE(added.ok()) << added.error().ToString();
  }
  void PutRaw(const std::string& key, const std::string& text) {
    (void)Require(host_.store().Commit({{}, {{key, text}}}));
  }
  // Entries without members, one in each microsecond from `first` on.
  void Fill(std::int64_t first, int count) {
    store::Transaction transaction;
    for (int i = 0; i < count; ++i) transaction.operations.push_back({KeyAt(first + i), "{}"});
    (void)Require(host_.store().Commit(transaction));
  }

  // All keys and values below /log.
  std::vector<std::pair<std::string, std::string>> Stored() {
    std::vector<std::pair<std::string, std::string>> all;
    const auto snapshot = Require(host_.store().Read());
    const Status scanned = snapshot->Scan("/log", [&](std::string_view key, const store::ValueView& value) {
      all.emplace_back(key, value.text);
      return true;
    });
    EXPECT_TRUE(scanned.ok());
    return all;
  }
  static Timestamps Times(const LogPage& page) {
    Timestamps times;
    for (const LogEntry& entry : page.entries) times.push_back(entry.time_us);
    return times;
  }

  test::TestHost host_;
};

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
  EXPECT_EQ(Stored()[0].first, KeyAt(entry.time_us));
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

TEST_F(ClusterLog, Add_TimestampTaken_UsesNextMicrosecond) {
  Add(kNow, "a");
  Add(kNow, "b");
  Add(kNow + 3, "d");
  Add(kNow, "c");
  const LogPage page = Require(ReadLog("", 10));
  EXPECT_EQ(Times(page), (Timestamps{kNow + 3, kNow + 2, kNow + 1, kNow}));
  EXPECT_EQ(page.entries[1].text, "c");
  EXPECT_EQ(page.entries[3].text, "a");
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

// Bounds.

TEST_F(ClusterLog, Add_LogFull_RemovesOldestEntry) {
  Fill(kNow, static_cast<int>(kMaxLogEntries) - 1);
  Add(kNow + 20'000);
  EXPECT_EQ(Stored().size(), kMaxLogEntries);
  EXPECT_EQ(Stored().front().first, KeyAt(kNow));
  Add(kNow + 30'000);
  const auto stored = Stored();
  EXPECT_EQ(stored.size(), kMaxLogEntries);
  EXPECT_EQ(stored.front().first, KeyAt(kNow + 1));
  EXPECT_EQ(stored.back().first, KeyAt(kNow + 30'000));
}

TEST_F(ClusterLog, Add_LogOverfull_ShrinksStepByStep) {
  Fill(kNow, static_cast<int>(kMaxLogEntries) + 600);
  Add(kNow + 20'000);
  EXPECT_EQ(Stored().size(), kMaxLogEntries + 600 + 1 - 500);
  Add(kNow + 20'001);
  EXPECT_EQ(Stored().size(), kMaxLogEntries);
}

TEST_F(ClusterLog, Add_EntriesOlderThanAYear_AreRemoved) {
  Add(kNow - kYearUs - 5'000'000);
  Add(kNow - kYearUs - 1);
  Add(kNow - kYearUs);
  EXPECT_EQ(Stored().size(), 3u);
  Add(kNow);
  const auto stored = Stored();
  ASSERT_EQ(stored.size(), 2u);
  EXPECT_EQ(stored[0].first, KeyAt(kNow - kYearUs));
}

TEST_F(ClusterLog, ClusterLog_InvalidEntries_AreNeitherReturnedNorTrimmed) {
  const std::vector<std::string> strange{"/log/0", "/log/zzz", "/log/0000000000000000000x", KeyAt(1) + "/more"};
  for (const std::string& key : strange) PutRaw(key, R"({"text":"strange"})");
  Fill(kNow, static_cast<int>(kMaxLogEntries));
  Add(kNow + 20'000);
  const auto stored = Stored();
  EXPECT_EQ(stored.size(), kMaxLogEntries + strange.size());
  for (const std::string& key : strange) {
    EXPECT_TRUE(std::any_of(stored.begin(), stored.end(), [&](const auto& one) { return one.first == key; })) << key;
  }
  for (const LogEntry& entry : Require(ReadLog("", 1000)).entries) EXPECT_NE(entry.text, "strange");
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
  for (const int time : {30, 10, 50, 20, 40}) Add(time);
  LogPage page = Require(ReadLog("", 2));
  EXPECT_EQ(Times(page), (Timestamps{50, 40}));
  Add(60);  // what is added in between moves nothing
  page = Require(ReadLog(page.next, 2));
  EXPECT_EQ(Times(page), (Timestamps{30, 20}));
  page = Require(ReadLog(page.next, 2));
  EXPECT_EQ(Times(page), (Timestamps{10}));
  EXPECT_EQ(page.next, "");
  EXPECT_EQ(Require(ReadLog("", 6)).next, "") << "all there are";
  EXPECT_EQ(Times(Require(ReadLog("", 0))), (Timestamps{60})) << "a page has one entry at least";
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
  for (const int time : {10, 20, 30}) Add(time);
  const LogPage page = Require(ReadLog("", 2));
  (void)Require(host_.store().Commit({{}, {{KeyAt(20), std::nullopt}}}));
  EXPECT_EQ(Times(Require(ReadLog(page.next, 2))), (Timestamps{10}));
}

TEST_F(ClusterLog, Read_InvalidCursor_IsRefused) {
  const std::string good(20, '0');
  EXPECT_TRUE(ReadLog(good, 10).ok());
  for (const std::string& cursor : {std::string("x"), std::string("1"), good + "0", "../" + good.substr(3),
                                    "-" + good.substr(1), good.substr(1) + std::string(1, '\0'), std::string(" ")}) {
    const auto page = ReadLog(cursor, 10);
    ASSERT_FALSE(page.ok()) << cursor;
    EXPECT_EQ(page.error().code(), ErrorCode::kInvalid);
  }
}

TEST_F(ClusterLog, Read_DamagedEntries_AreOmitted) {
  Add(10, "good");
  for (const auto& [time, text] : std::vector<std::pair<int, std::string>>{{20, "nonsense"}, {30, "[1]"}, {40, ""}}) {
    PutRaw(KeyAt(time), text);
  }
  PutRaw(KeyAt(50), R"({"time_us":"x","host_id":[],"user":{},"priority":"3","text":null,"request_id":7})");
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

TEST_F(ClusterLog, ReadAfter_Cursor_ReturnsOldestFirst) {
  const auto times = [](std::int64_t after, std::size_t limit) {
    return Times({Require(ReadLogAfter(after, limit)), ""});
  };
  for (const int time : {30, 10, 50, 20, 40}) Add(time);
  EXPECT_EQ(times(20, 10), (Timestamps{30, 40, 50})) << "without the entry of that very time";
  EXPECT_EQ(times(0, 2), (Timestamps{10, 20}));
  EXPECT_EQ(times(0, 0), (Timestamps{10})) << "a page has one entry at least";
  EXPECT_EQ(times(50, 10), Timestamps());
  EXPECT_EQ(times(std::numeric_limits<std::int64_t>::max(), 10), Timestamps());
  ASSERT_FALSE(ReadLogAfter(-1, 10).ok());
  EXPECT_EQ(ReadLogAfter(-1, 10).error().code(), ErrorCode::kInvalid);
}

TEST_F(ClusterLog, ReadAfter_LargeLog_IsTruncated) {
  Fill(kNow, 1500);
  const auto first = Require(ReadLogAfter(0, 100'000));
  ASSERT_EQ(first.size(), kMaxLogPage);
  EXPECT_EQ(Require(ReadLogAfter(first.back().time_us, 100'000)).size(), 500u);
}

TEST_F(ClusterLog, ClusterLog_DamagedEntries_AreSkipped) {
  PutRaw(KeyAt(20), "nonsense");
  PutRaw(KeyAt(30), R"({"time_us":5,"text":"liar"})");
  PutRaw("/log/99999999999999999999", R"({"text":"beyond all time"})");
  Add(40, "good");
  const auto entries = Require(ReadLogAfter(0, 2));
  ASSERT_EQ(entries.size(), 2u);
  EXPECT_EQ(entries[0].time_us, 30) << "the key's time, not what the entry says";
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
