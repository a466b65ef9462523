// The cluster log: sentences for users about what happened to the cluster's guests. VexaCCC::ClusterLogAdd writes it.
//
//   /log/<microseconds since 1970, 20 digits>   {"host_id", "priority", "request_id", "text", "time_us", "user"}
//
// An entry is at most 4 KiB. The log keeps at most 10,000 entries: adding one removes the oldest ones beyond that, and
// those more than a year older than the new one. Two entries never share a key, whichever hosts write them: the later
// one takes the next free microsecond.
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
inline constexpr std::chrono::hours kMaxLogAge{365 * 24};
inline constexpr std::size_t kMaxLogEntryBytes = 4096;
inline constexpr std::size_t kMaxLogPage = 1000;

struct LogEntry {
  std::int64_t time_us = 0;  // since 1970
  std::string host_id;       // the host that wrote it
  std::string user;
  int priority = 0;  // a value of VexaCCC::CLOG_PRIORITY
  std::string text;
  std::string request_id;  // empty: not part of a request
};

// Adds an entry at its time, or at the first free microsecond after it. Its strings are sanitised: one line, valid
// UTF-8, truncated when they are too long.
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

// For following the log, returns the entries later than `after_us`, oldest first, at most `limit` (1 to kMaxLogPage) of
// them. Invalid entries are left out. A host whose clock is behind may add an entry before one that was already read.
// Errors: kInvalid for a time before 1970; those of the store.
Result<std::vector<LogEntry>> ReadLogAfter(const records::Reader& reader, std::int64_t after_us, std::size_t limit);

}  // namespace vexa::cluster
