#include "host/cluster/cluster_log.h"

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <deque>
#include <optional>
#include <string_view>
#include <utility>

#include "host/base/json_parse.h"
#include "host/base/sanitize_for_log.h"
#include "host/records/object_edit.h"
#include "host/store/key.h"
#include "json/readers.h"

namespace vexa::cluster {
namespace {

constexpr std::string_view kPrefix = "/log";
constexpr std::size_t kDigits = 20;
// The limit for names; the rest of an entry is for the text.
constexpr std::size_t kMaxNameBytes = 256;
// A commit must not grow with the backlog, so a commit that adds an entry removes at most this many.
constexpr std::size_t kMaxTrimmedPerCommit = 500;

constexpr char kTime[] = "time_us";
constexpr char kHost[] = "host_id";
constexpr char kUser[] = "user";
constexpr char kPriority[] = "priority";
constexpr char kText[] = "text";
constexpr char kRequest[] = "request_id";

// The last segment of an entry's key: its time in 20 digits. It is also the cursor of pages.
std::string PositionAt(std::int64_t time_us) {
  char digits[kDigits + 1];
  std::snprintf(digits, sizeof digits, "%020lld", static_cast<long long>(time_us));
  return digits;
}

bool IsPosition(std::string_view text) {
  return text.size() == kDigits && std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; });
}

std::string EntryKey(std::string_view position) { return store::MakeKey({"log", position}); }

// The position of the entry with this key; empty when the key is not that of an entry.
std::string_view PositionOf(std::string_view key) {
  if (key.size() != kPrefix.size() + 1 + kDigits) return {};
  const std::string_view position = key.substr(kPrefix.size() + 1);
  return IsPosition(position) ? position : std::string_view();
}

std::string SerializeEntry(const LogEntry& entry) {
  Json::Value value(Json::objectValue);
  value[kTime] = Json::Int64{entry.time_us};
  value[kHost] = entry.host_id;
  value[kUser] = entry.user;
  value[kPriority] = entry.priority;
  value[kText] = entry.text;
  value[kRequest] = entry.request_id;
  return json::ToText(value);
}

// Truncates the strings so that the stored entry is within its limit even when JSON escapes some characters.
void TruncateToLimit(LogEntry& entry) {
  for (std::string* name : {&entry.host_id, &entry.user, &entry.request_id})
    *name = SanitizeForLog(*name, kMaxNameBytes);
  entry.text = SanitizeForLog(entry.text, kMaxLogEntryBytes);
  while (true) {
    const std::size_t size = SerializeEntry(entry).size() + kDigits;  // the time may still become longer
    if (size <= kMaxLogEntryBytes) return;
    // A byte of the text takes at most two in JSON, so this does not cut too much; the names' limit leaves room for
    // most of the text.
    const std::size_t surplus = (size - kMaxLogEntryBytes + 1) / 2;
    entry.text = SanitizeForLog(entry.text, entry.text.size() - surplus);
  }
}

// The time comes from the key: a reader that continues after an entry must not be misled by the entry's content.
std::optional<LogEntry> Parse(std::string_view position, std::string_view text) {
  LogEntry entry;
  const char* const end = position.data() + position.size();
  if (std::from_chars(position.data(), end, entry.time_us).ec != std::errc()) return std::nullopt;
  const Result<Json::Value> value = ParseJson(text);
  if (!value || !value->isObject()) return std::nullopt;
  entry.host_id = json::String(json::Member(*value, kHost));
  entry.user = json::String(json::Member(*value, kUser));
  entry.priority = json::Int(json::Member(*value, kPriority));
  entry.text = json::String(json::Member(*value, kText));
  entry.request_id = json::String(json::Member(*value, kRequest));
  return entry;
}

// Adds the removal of the oldest entries to `transaction`: those over the limit once one more entry is added, and those
// older than kMaxLogAge at `now_us`.
Status AddTrimming(const store::Snapshot& snapshot, std::int64_t now_us, store::Transaction& transaction) {
  const std::int64_t age_us = std::chrono::duration_cast<std::chrono::microseconds>(kMaxLogAge).count();
  const std::string oldest = PositionAt(std::max<std::int64_t>(now_us - age_us, 0));
  std::size_t count = 1;
  std::size_t expired = 0;
  const auto count_entry = [&](std::string_view key, const store::ValueView&) {
    const std::string_view position = PositionOf(key);
    if (position.empty()) return true;
    ++count;
    if (position < oldest) ++expired;
    return true;
  };
  if (const Status scanned = snapshot.Scan(kPrefix, count_entry); !scanned) return scanned;
  std::size_t surplus = std::min(std::max(count - std::min(count, kMaxLogEntries), expired), kMaxTrimmedPerCommit);
  if (surplus == 0) return {};
  return snapshot.Scan(kPrefix, [&](std::string_view key, const store::ValueView&) {
    if (PositionOf(key).empty()) return true;
    transaction.operations.push_back({std::string(key), std::nullopt});
    return --surplus > 0;
  });
}

}  // namespace

Status AddLogEntry(store::Store& store, LogEntry entry) {
  if (entry.time_us < 0) return Error(ErrorCode::kInvalid, "An entry of the cluster log cannot be older than 1970");
  TruncateToLimit(entry);
  return records::CommitWithRetry(store, [&](const records::Reader& reader) -> Result<store::Transaction> {
    std::string key = EntryKey(PositionAt(entry.time_us));
    while (true) {
      const auto taken = reader.Get(key);
      if (!taken) return taken.error();
      if (!taken->has_value()) break;
      key = EntryKey(PositionAt(++entry.time_us));
    }
    store::Transaction transaction;
    if (const Status trimmed = AddTrimming(reader, entry.time_us, transaction); !trimmed) return trimmed.error();
    transaction.compares.push_back({key, 0});
    transaction.operations.push_back({key, SerializeEntry(entry)});
    return transaction;
  });
}

Result<LogPage> ReadLog(const records::Reader& reader, const std::string& cursor, std::size_t limit) {
  if (!cursor.empty() && !IsPosition(cursor)) {
    return Error(ErrorCode::kInvalid, "This is not a cursor of the cluster log");
  }
  limit = std::clamp<std::size_t>(limit, 1, kMaxLogPage);
  struct Found {
    std::string position;
    std::string_view text;
  };
  std::deque<Found> found;  // the newest entries seen so far, and one more
  const Status scanned = reader.Scan(kPrefix, [&](std::string_view key, const store::ValueView& value) {
    const std::string_view position = PositionOf(key);
    if (position.empty()) return true;
    if (!cursor.empty() && position >= cursor) return false;
    found.push_back({std::string(position), value.text});
    if (found.size() > limit + 1) found.pop_front();
    return true;
  });
  if (!scanned) return scanned.error();
  LogPage page;
  if (found.size() > limit) {
    found.pop_front();
    if (!found.empty()) page.next = found.front().position;
  }
  for (auto entry = found.rbegin(); entry != found.rend(); ++entry) {
    if (std::optional<LogEntry> parsed = Parse(entry->position, entry->text))
      page.entries.push_back(*std::move(parsed));
  }
  return page;
}

Result<std::vector<LogEntry>> ReadLogAfter(const records::Reader& reader, std::int64_t after_us, std::size_t limit) {
  if (after_us < 0) return Error(ErrorCode::kInvalid, "No entry of the cluster log is older than 1970");
  limit = std::clamp<std::size_t>(limit, 1, kMaxLogPage);
  const std::string after = PositionAt(after_us);
  std::vector<LogEntry> entries;
  const Status scanned = reader.Scan(kPrefix, [&](std::string_view key, const store::ValueView& value) {
    const std::string_view position = PositionOf(key);
    if (position.empty() || position <= after) return true;
    if (std::optional<LogEntry> parsed = Parse(position, value.text)) entries.push_back(*std::move(parsed));
    return entries.size() < limit;
  });
  if (!scanned) return scanned.error();
  return entries;
}

}  // namespace vexa::cluster
