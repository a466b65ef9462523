// The cluster log: sentences for users about what happened to the cluster's guests. VexaCCC::ClusterLogAdd writes it.
//
//   /log/<position, 20 digits>   {"host_id", "priority", "request_id", "text", "time_us", "user"}, and for a refusal
//   that
//                                was repeated "count" and "first_time_us"
//
// Positions increase with every entry, whichever hosts write them: an entry's position is the time of its host in
// microseconds since 1970, or the number after the last position when that is greater. So the entries have the order of
// the commits that added them, whatever the hosts' clocks say. log_edit.h has the records that this takes.
//
// An entry is at most 4 KiB. The log keeps at most 10,000 entries. When it is full, an entry replaces the oldest one of
// its user if that user has a tenth of the log, otherwise the oldest one of all. Equal refusals of one user on one host
// within five minutes are one entry, which moves to the end and counts them.
//
// Entries that are a year older than each of the last 16 times are removed as well. Where several hosts write, one of
// these times is always of another host than the rest, so no single clock makes the entries of others look old. When
// only one of several hosts is left, its log is therefore limited by number alone.
//
// Threads: any, at the same time.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "host/base/result.h"
#include "host/records/reader.h"
#include "host/store/store.h"

namespace vexa::cluster {

inline constexpr std::size_t kMaxLogEntries = 10'000;
inline constexpr std::size_t kLogShare = kMaxLogEntries / 10;
inline constexpr std::chrono::hours kMaxLogAge{365 * 24};
inline constexpr std::chrono::minutes kMergeWindow{5};
inline constexpr std::size_t kMaxLogEntryBytes = 4096;
inline constexpr std::size_t kMaxLogPage = 1000;

struct LogEntry {
  std::int64_t time_us = 0;  // since 1970, by the clock of the host that wrote it
  std::string host_id;       // that host
  std::string user;
  int priority = 0;  // a value of VexaCCC::CLOG_PRIORITY
  std::string text;
  std::string request_id;  // empty: not part of a request
  // Set by the log:
  int count = 1;                   // how many equal refusals this is
  std::int64_t first_time_us = 0;  // of the first of them
  std::int64_t position = 0;
};

// Adds an entry. Its strings are sanitised: one line, valid UTF-8, truncated when they are too long. Entries of many
// threads share commits.
// Errors: those of the store; kConflict when the log keeps changing; kInvalid for a time before 1970.
Status AddLogEntry(store::Store& store, LogEntry entry);

struct LogPage {
  std::vector<LogEntry> entries;  // newest first
  std::string next;               // the cursor of the page with the entries before these; empty: no older entries
};

// The newest entries before `cursor`, or of the whole log when it is empty; at most `limit` (1 to kMaxLogPage) of them.
// Invalid entries are left out. A cursor stays valid whatever is added or trimmed.
// Errors: kInvalid for a cursor that was not returned by a page; those of the store.
Result<LogPage> ReadLog(const records::Reader& reader, const std::string& cursor, std::size_t limit);

// For following the log, returns the entries after `position`, oldest first, at most `limit` (1 to kMaxLogPage) of
// them. Invalid entries are left out. A caller that continues after the last entry of a page misses none and gets none
// twice. The time of an entry can also be passed, as older versions did: the entry itself may then be returned again.
// Errors: kInvalid for a negative position; those of the store.
Result<std::vector<LogEntry>> ReadLogAfter(const records::Reader& reader, std::int64_t position, std::size_t limit);

}  // namespace vexa::cluster
