// The record /log_state, which every commit of the cluster log reads and replaces.
//
//   {"count", "since_recount", "last", "times": [{"host_id", "time_us"}], "largest"}
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "host/base/result.h"
#include "host/cluster/cluster_log.h"
#include "host/records/reader.h"
#include "host/store/store.h"

namespace vexa::cluster {

// The counts of the log and of its users are compared with the store again after this many entries: an older version,
// or damage, may have changed the store beside them.
inline constexpr std::size_t kRecountAfter = 256;
// A greater count is damaged.
inline constexpr std::size_t kMaxPlausibleLogCount = 2 * kMaxLogEntries;

// The times of the last entries, which say what time it is.
class LogTimes {
 public:
  struct Time {
    std::string host_id;  // the host that wrote the entry
    std::int64_t time_us = 0;
  };

  // Keeps the last 16 times, among them one of another host than `host_id` if any other host has written: the clock of
  // a single host never decides alone, however many entries it writes.
  void Add(std::string host_id, std::int64_t time_us);

  // All kept times are at least this one. Not set while there are fewer than 16.
  std::optional<std::int64_t> Earliest() const;

  const std::vector<Time>& all() const { return times_; }

 private:
  std::vector<Time> times_;  // the newest entry's last
};

struct LogState {
  store::Revision revision = 0;   // of the record; 0: it does not exist
  std::size_t count = 0;          // of entries
  std::size_t since_recount = 0;  // entries that were added since the count was compared with the store
  std::int64_t last = 0;          // position
  LogTimes times;
  std::string largest;  // a user who has more than a share; empty: none is known
};

std::string LogStateKey();

// The state; derived from the entries when its record is missing or damaged. Errors: those of the store.
Result<LogState> LoadLogState(const records::Reader& reader);
std::string SerializeLogState(const LogState& state);

// The number of positions directly below `prefix`. Errors: those of the store.
Result<std::size_t> CountPositions(const records::Reader& reader, std::string_view prefix);

}  // namespace vexa::cluster
