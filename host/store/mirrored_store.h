// The cluster's store (the primary) with a copy on this host, which is read while the primary cannot be.
#pragma once

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <thread>

#include "host/base/mutex.h"
#include "host/store/lmdb_keyspace.h"
#include "host/store/store.h"

namespace vexa::store {

struct MirrorOptions {
  // Of the copy; created when missing. A damaged copy is renamed to "<directory>.damaged-1.mdb" and made again; the one
  // before it is kept as well.
  std::string directory;
  // How often a failing primary is probed for its return.
  std::chrono::milliseconds retry_interval{250};
  // How long changes are collected after each write of the copy, to be written together.
  std::chrono::milliseconds batch_delay{200};
  // Called on the mirror's own thread whenever reads switch to the copy or back to the primary, and again one second
  // later, for lookups that were under way at the switch. It may read the store and must not destroy it.
  std::function<void()> on_change{};
};

// Reads come from the primary. While it cannot be read (its Read fails, or its health is kInaccessible), they come from
// the copy: health() is then kInaccessible, and commits and watches are refused with the primary's error. This ends
// automatically, at most `retry_interval` after the primary works again. In normal operation a read costs one extra
// atomic load.
//
// The copy is always one state that the primary had, including the revisions of the store and of each value: never a
// mixture, and never ahead. It lags behind by `batch_delay` and the time of a commit. A snapshot of the copy may
// therefore be older than a snapshot of the primary that the caller had before; revisions go back once when the copy
// takes over, and forward again when the primary does. The same revision of a key always means the same value, in the
// copy as in the primary.
//
// Each write of the copy is one transaction, so a kill at any point leaves the state before it or after it. After a
// start, the copy is first compared completely, because the primary may have been restored from a backup meanwhile.
// Until that has succeeded once, the copy is not used, and callers get the errors of a failing primary. The comparison
// keeps one snapshot of the primary open, for seconds when the store is large.
//
// Only a failure to take a snapshot switches to the copy. A single value that cannot be read is an error of that read.
// Threads: any, at the same time.
class MirroredStore final : public Store {
 public:
  // Errors: kInvalid (no folder given), and what keeps the copy from being opened: kDenied, kNoSpace, kUnavailable (its
  // disk cannot be read, or a thread cannot be started), kInternal (also: a damaged copy cannot be renamed).
  static Result<std::shared_ptr<MirroredStore>> Make(std::shared_ptr<Store> primary, MirrorOptions options);
  ~MirroredStore() override;
  MirroredStore(const MirroredStore&) = delete;
  MirroredStore& operator=(const MirroredStore&) = delete;

  Result<std::unique_ptr<Snapshot>> Read() const override;
  Result<Revision> Commit(const Transaction& transaction) override;
  Result<ChangeBatch> Watch(std::string_view prefix, Revision from, std::chrono::milliseconds timeout) override;
  Health health() const override;
  void LimitLockWaits(std::chrono::milliseconds longest) override;

  // The revision of the copy; 0 while the copy is not used, because it has not been compared yet.
  Revision mirrored_revision() const { return mirrored_revision_; }

 private:
  MirroredStore(std::shared_ptr<Store> primary, std::unique_ptr<LmdbKeyspace> copy, MirrorOptions options);
  // Why the primary is not used; not set while it is.
  std::optional<Error> PrimaryFailure() const;
  void SwitchToCopy(const Error& error) const;
  void SwitchBackWhenHealthy();
  void ReportSwitch();

  void Run();
  bool Sleep(std::chrono::milliseconds pause);
  Status UpdateCopy();
  Status CopyAll();
  Status CopyChanged(const ChangeBatch& batch);
  Result<bool> CollectChangedKeys(Revision from, Revision until, std::set<std::string>& keys);
  void LogCopyOutcome(const Status& outcome);

  const std::shared_ptr<Store> primary_;
  const std::unique_ptr<LmdbKeyspace> copy_;
  const MirrorOptions options_;
  std::atomic<Revision> mirrored_revision_{0};

  mutable std::atomic<bool> serving_from_copy_{false};  // reads come from the copy; written under mutex_
  mutable Mutex mutex_;
  mutable ConditionVariable wake_;
  mutable std::optional<Error> primary_failure_ VEXA_GUARDED_BY(mutex_);  // set while serving_from_copy_
  bool stopping_ VEXA_GUARDED_BY(mutex_) = false;

  // Used by the thread only.
  bool reported_copy_in_use_ = false;
  std::optional<std::chrono::steady_clock::time_point> repeat_report_at_;
  bool copy_is_failing_ = false;
  std::thread thread_;
};

}  // namespace vexa::store
