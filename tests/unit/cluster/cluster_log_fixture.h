// The cluster log on a real store.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <string>
#include <utility>
#include <vector>

#include "host/cluster/cluster_log.h"
#include "host/cluster/log_entry.h"
#include "host/records/request_scope.h"
#include "tests/support/require.h"
#include "tests/support/syslog_capture.h"
#include "tests/support/test_host.h"
#include "webapi/platform/ccc_log.h"

namespace vexa::cluster {

using test::Require;
using VexaCCC::CLOG_PRIORITY_FAILURE;
using VexaCCC::CLOG_PRIORITY_SUCCESS;
using VexaCCC::ClusterLogAdd;

using Numbers = std::vector<std::int64_t>;
using Texts = std::vector<std::string>;

constexpr std::int64_t kSecondUs = 1'000'000;
constexpr std::int64_t kYearUs = 365 * 24 * 3600 * kSecondUs;

inline std::int64_t NowUs() {
  const auto now = std::chrono::system_clock::now().time_since_epoch();
  return std::chrono::duration_cast<std::chrono::microseconds>(now).count();
}

// The real time: lines that the log gives their time itself must not be a year away.
inline const std::int64_t kNow = NowUs();

class ClusterLogTest : public testing::Test {
 protected:
  void SetUp() override { test::ClearCapturedSyslog(); }

  // As the request reads it.
  static Result<LogPage> ReadLog(const std::string& cursor, std::size_t limit) {
    const auto reader = records::ReaderOfRequest();
    if (!reader) return reader.error();
    return cluster::ReadLog(**reader, cursor, limit);
  }
  static Result<std::vector<LogEntry>> ReadLogAfter(std::int64_t position, std::size_t limit) {
    const auto reader = records::ReaderOfRequest();
    if (!reader) return reader.error();
    return cluster::ReadLogAfter(**reader, position, limit);
  }

  void AddEntry(const LogEntry& entry) {
    const Status added = AddLogEntry(host_.store(), entry);
    ASSERT_TRUE(added.ok()) << added.error().ToString();
  }
  void Add(std::int64_t time_us, const std::string& text = "text", const std::string& user = "eve") {
    AddEntry({time_us, "h1", user, CLOG_PRIORITY_SUCCESS, text, ""});
  }
  void Refuse(std::int64_t time_us, const std::string& text, const std::string& user = "eve",
              const std::string& host_id = "h1") {
    AddEntry({time_us, host_id, user, CLOG_PRIORITY_FAILURE, text, ""});
  }
  void PutRaw(const std::string& key, const std::string& text) {
    (void)Require(host_.store().Commit({{}, {{key, text}}}));
  }
  // As an older version: entries alone, one in each microsecond from `first` on.
  void Fill(std::int64_t first, int count, const std::string& user = "admin") {
    store::Transaction transaction;
    for (int i = 0; i < count; ++i) {
      const LogEntry entry{first + i, "h1", user, CLOG_PRIORITY_SUCCESS, "old", ""};
      transaction.operations.push_back({LogEntryKey(first + i), SerializeLogEntry(entry)});
    }
    (void)Require(host_.store().Commit(transaction));
  }

  std::vector<std::pair<std::string, std::string>> StoredBelow(const std::string& prefix) {
    std::vector<std::pair<std::string, std::string>> all;
    const auto snapshot = Require(host_.store().Read());
    const Status scanned = snapshot->Scan(prefix, [&](std::string_view key, const store::ValueView& value) {
      all.emplace_back(key, value.text);
      return true;
    });
    EXPECT_TRUE(scanned.ok());
    return all;
  }
  // All keys and values of entries.
  std::vector<std::pair<std::string, std::string>> Stored() { return StoredBelow("/log"); }

  // All entries, oldest first.
  static std::vector<LogEntry> All() {
    std::vector<LogEntry> all;
    while (true) {
      std::vector<LogEntry> page = Require(ReadLogAfter(all.empty() ? 0 : all.back().position, kMaxLogPage));
      if (page.empty()) return all;
      all.insert(all.end(), page.begin(), page.end());
    }
  }
  static Texts TextsOf(const std::vector<LogEntry>& entries) {
    Texts texts;
    for (const LogEntry& entry : entries) texts.push_back(entry.text);
    return texts;
  }
  static Numbers PositionsOf(const std::vector<LogEntry>& entries) {
    Numbers positions;
    for (const LogEntry& entry : entries) positions.push_back(entry.position);
    return positions;
  }
  static std::ptrdiff_t CountOf(const std::string& user) { return std::ranges::count(All(), user, &LogEntry::user); }

  test::TestHost host_;
};

}  // namespace vexa::cluster
