// How entries of the cluster log are stored.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "host/cluster/cluster_log.h"

namespace vexa::cluster {

// All entries lie below this key.
inline constexpr std::string_view kLogPrefix = "/log";

// The greatest position: every JSON reader has this integer exactly.
inline constexpr std::int64_t kMaxLogPosition = (std::int64_t{1} << 53) - 1;

// Later times (in 2096) come from a wrong clock. They do not move positions forward, so that enough positions are left.
inline constexpr std::int64_t kMaxBelievedLogTime = 4'000'000'000'000'000;

// A position in 20 digits, the last segment of an entry's key, and the inverse: not set for any other text.
std::string LogPositionText(std::int64_t position);
std::optional<std::int64_t> ParseLogPosition(std::string_view text);

std::string LogEntryKey(std::int64_t position);
// The position in the last segment of `key`, which lies directly below `prefix`. Not set for any other key.
std::optional<std::int64_t> LogPositionOf(std::string_view key, std::string_view prefix = kLogPrefix);

std::string SerializeLogEntry(const LogEntry& entry);
// Not set when `text` is not an entry.
std::optional<LogEntry> ParseLogEntry(std::int64_t position, std::string_view text);

// Sanitises the strings, and cuts them so that the stored entry has at most kMaxLogEntryBytes even when JSON escapes
// some characters.
void LimitLogEntry(LogEntry& entry);

}  // namespace vexa::cluster
