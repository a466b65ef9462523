// One commit of the cluster log: entries are added, equal refusals merged, and old entries removed.
//
//   /log_state                      log_state.h: the number of entries, the last position, the times of the newest
//                                   entries, and a user who has more than a share
//   /log_user/<user>                {"count", "since_recount", "refusals"}: the number of a user's entries, how many
//                                   were added since it was compared with the store, and the refusals that equal ones
//                                   are merged with. <user> is a UUID made of the name.
//   /log_user/<user>/<position>     ""; one for each of the user's entries, to find the oldest
//
// Every commit compares /log_state, so the commits of all hosts follow one another. It costs the same whether the log
// is empty or full, apart from one in kRecountAfter, which counts the entries again.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "host/base/result.h"
#include "host/cluster/cluster_log.h"
#include "host/cluster/log_state.h"
#include "host/records/reader.h"
#include "host/store/store.h"

namespace vexa::cluster {

// Threads: one.
class LogEdit {
 public:
  // `reader` must outlive the edit. Errors: those of the store.
  static Result<LogEdit> Begin(const records::Reader& reader);

  // Adds an entry whose strings are limited already. Errors: those of the store; kNoSpace after the last position.
  Status Add(LogEntry entry);

  // The whole change. Errors: those of the store.
  Result<store::Transaction> Finish() &&;

 private:
  struct Refusal {
    std::string fingerprint;  // of host and text
    std::int64_t position = 0;
    std::int64_t first_time_us = 0;
  };
  // What a user has in the log.
  struct Share {
    std::size_t count = 0;
    std::size_t since_recount = 0;
    std::vector<Refusal> refusals;  // the newest last
  };

  LogEdit(const records::Reader& reader, LogState state) : reader_(reader), state_(std::move(state)) {}
  Result<Share> LoadShare(const std::string& user) const;
  Result<Share*> ShareOf(const std::string& user);
  Status MergeWithEqual(LogEntry& entry, Share& share);
  Result<std::optional<LogEntry>> Find(std::int64_t position) const;
  Result<std::string> UserWhoGivesWay(const std::string& user, const Share& share);
  Status MakeRoom(const std::string& user, const Share& share);
  Result<std::int64_t> NextPosition(std::int64_t time_us) const;
  Status RemoveExpired();
  // The oldest entries below `prefix` that are stored and not removed yet, at most `limit`.
  Result<std::vector<std::int64_t>> OldestBelow(const std::string& prefix, std::size_t limit) const;
  Status Remove(std::int64_t position, const std::optional<std::string>& user);

  const records::Reader& reader_;
  LogState state_;
  std::map<std::string, Share> shares_;
  std::map<std::int64_t, LogEntry> added_;
  std::set<std::int64_t> removed_;
  store::Transaction transaction_;
};

}  // namespace vexa::cluster
