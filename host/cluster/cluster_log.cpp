#include "host/cluster/cluster_log.h"

#include <algorithm>
#include <deque>
#include <exception>
#include <optional>
#include <set>
#include <span>
#include <string_view>
#include <utility>

#include "host/base/mutex.h"
#include "host/cluster/log_edit.h"
#include "host/cluster/log_entry.h"
#include "host/records/object_edit.h"

namespace vexa::cluster {
namespace {

struct PendingEntry {
  store::Store* store = nullptr;
  const LogEntry* entry = nullptr;
  std::optional<Status> outcome{};
};

Status CommitEntries(store::Store& store, std::span<PendingEntry* const> batch) {
  return records::CommitWithRetry(store, [&](const records::Reader& reader) -> Result<store::Transaction> {
    Result<LogEdit> edit = LogEdit::Begin(reader);
    if (!edit) return edit.error();
    for (const PendingEntry* pending : batch) {
      if (Status added = edit->Add(*pending->entry); !added) return added.error();
    }
    return std::move(*edit).Finish();
  });
}

// Entries that threads of this process add at the same time are committed together. One by one, each commit would make
// those of the other threads start over.
class PendingEntries {
 public:
  Status Add(store::Store& store, const LogEntry& entry) {
    PendingEntry own{&store, &entry};
    const records::RequestPause pause;  // no snapshot stays open while this waits for another thread's commit
    ReleasableMutexLock lock(mutex_);
    waiting_.push_back(&own);
    while (!own.outcome) {
      if (committing_.contains(&store)) {
        changed_.Wait(mutex_);
        continue;
      }
      committing_.insert(&store);
      const std::vector<PendingEntry*> batch = TakeBatch(store);
      lock.Unlock();
      const Status outcome = CommitOrFail(store, batch);
      lock.Lock();
      committing_.erase(&store);
      for (PendingEntry* pending : batch) pending->outcome = outcome;
      changed_.NotifyAll();
    }
    return *std::move(own.outcome);
  }

 private:
  static constexpr std::size_t kMaxBatch = 64;

  std::vector<PendingEntry*> TakeBatch(const store::Store& store) VEXA_REQUIRES(mutex_) {
    std::vector<PendingEntry*> batch;
    std::erase_if(waiting_, [&](PendingEntry* pending) {
      const bool is_taken = pending->store == &store && batch.size() < kMaxBatch;
      if (is_taken) batch.push_back(pending);
      return is_taken;
    });
    return batch;
  }

  // An exception must not leave the other threads of the batch without an outcome.
  static Status CommitOrFail(store::Store& store, std::span<PendingEntry* const> batch) {
    try {
      return CommitEntries(store, batch);
    } catch (const std::exception& exception) {
      return Error(ErrorCode::kInternal, "The entry could not be added to the cluster log", exception.what());
    }
  }

  Mutex mutex_;
  ConditionVariable changed_;
  std::deque<PendingEntry*> waiting_ VEXA_GUARDED_BY(mutex_);
  std::set<store::Store*> committing_ VEXA_GUARDED_BY(mutex_);
};

}  // namespace

Status AddLogEntry(store::Store& store, LogEntry entry) {
  if (entry.time_us < 0) return Error(ErrorCode::kInvalid, "An entry of the cluster log cannot be older than 1970");
  LimitLogEntry(entry);
  static PendingEntries pending;
  return pending.Add(store, entry);
}

Result<LogPage> ReadLog(const records::Reader& reader, const std::string& cursor, std::size_t limit) {
  const std::optional<std::int64_t> before = ParseLogPosition(cursor);
  if (!cursor.empty() && !before) return Error(ErrorCode::kInvalid, "This is not a cursor of the cluster log");
  limit = std::clamp<std::size_t>(limit, 1, kMaxLogPage);
  struct Found {
    std::int64_t position;
    std::string_view text;
  };
  std::deque<Found> found;  // the newest entries seen so far, and one more
  const Status scanned = reader.Scan(kLogPrefix, [&](std::string_view key, const store::ValueView& value) {
    const auto position = LogPositionOf(key);
    if (!position) return true;
    if (before && *position >= *before) return false;
    found.push_back({*position, value.text});
    if (found.size() > limit + 1) found.pop_front();
    return true;
  });
  if (!scanned) return scanned.error();
  LogPage page;
  if (found.size() > limit) {
    found.pop_front();
    page.next = LogPositionText(found.front().position);
  }
  for (auto entry = found.rbegin(); entry != found.rend(); ++entry) {
    if (std::optional<LogEntry> parsed = ParseLogEntry(entry->position, entry->text))
      page.entries.push_back(*std::move(parsed));
  }
  return page;
}

Result<std::vector<LogEntry>> ReadLogAfter(const records::Reader& reader, std::int64_t position, std::size_t limit) {
  if (position < 0) return Error(ErrorCode::kInvalid, "No position of the cluster log is negative");
  limit = std::clamp<std::size_t>(limit, 1, kMaxLogPage);
  std::vector<LogEntry> entries;
  const Status scanned = reader.Scan(kLogPrefix, [&](std::string_view key, const store::ValueView& value) {
    const auto found = LogPositionOf(key);
    if (!found || *found <= position) return true;
    if (std::optional<LogEntry> parsed = ParseLogEntry(*found, value.text)) entries.push_back(*std::move(parsed));
    return entries.size() < limit;
  });
  if (!scanned) return scanned.error();
  return entries;
}

}  // namespace vexa::cluster
