// A cluster's store with a copy on this host, for times when the cluster's store cannot be read.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <thread>

#include "host/store/lmdb_keyspace.h"
#include "host/store/store.h"

namespace vexa::store {

struct MirrorOptions {
  std::string directory;  // of the copy; created when missing, and rebuilt where it is damaged
  // How often a failing primary is probed.
  std::chrono::milliseconds retry{250};
  // How long changes are gathered after each write of the copy.
  std::chrono::milliseconds gather{200};
  // Called on the mirror's own thread whenever reads switch to the copy or back to the primary, and again one second
  // later, for lookups that were under way at the switch. It may read the store and must not destroy it.
  std::function<void()> on_change{};
};

// Reads come from the primary. While it cannot be read (its Read fails, or its health is kInaccessible), they come from
// the copy: health() is then kInaccessible, and commits and watches are refused with the primary's error. This ends
// automatically, at most `retry` after the primary works again. In normal operation a read costs one extra atomic load.
//
// The copy is always one state that the primary had, including the revisions of the store and of each value: never a
// mixture, and never ahead. It lags behind by `gather` and the time of a commit. A snapshot of the copy may therefore
// be older than a snapshot of the primary that the caller had before; revisions go back once when the copy takes over,
// and forward again when the primary does. A value with a revision that a reader knows is still the value that it
// knows.
//
// Each write of the copy is one transaction, so a kill at any point leaves the state before it or after it. After a
// start, the copy is first compared completely, because the primary may have been restored from a backup meanwhile.
// Until that has succeeded once, the copy is not used, and a failing primary is a failing store. The comparison holds
// one snapshot of the primary, for seconds when the store is large.
//
// Only a failure to take a snapshot switches to the copy. A single value that cannot be read is an error of that read.
// Threads: any, at the same time.
class MirroredStore final : public Store {
 public:
  // Errors: kInvalid (no folder given), and what keeps the copy from being opened: kDenied, kNoSpace, kInternal.
  static Result<std::shared_ptr<MirroredStore>> Make(std::shared_ptr<Store> primary, MirrorOptions options);
  ~MirroredStore() override;
  MirroredStore(const MirroredStore&) = delete;
  MirroredStore& operator=(const MirroredStore&) = delete;

  Result<std::unique_ptr<Snapshot>> Read() const override;
  Result<Revision> Commit(const Transaction& transaction) override;
  Result<ChangeBatch> Watch(std::string_view prefix, Revision from, std::chrono::milliseconds timeout) override;
  Health health() const override;

  // The revision of the copy; 0 while it is not used, because it has not been compared yet.
  Revision mirrored() const { return mirrored_; }

 private:
  MirroredStore(std::shared_ptr<Store> primary, std::unique_ptr<LmdbKeyspace> copy, MirrorOptions options);
  std::optional<Error> Failure() const;
  void TakeOver(const Error& error) const;
  void GiveBackWhenWell();
  void TellChange();

  void Run();
  bool Pause(std::chrono::milliseconds pause);
  Status Follow();
  Status CopyAll();
  Status CopyChanged(const ChangeBatch& batch);
  Result<bool> GatherKeys(Revision from, Revision until, std::set<std::string>& keys);
  void NoteOutcome(const Status& outcome);

  const std::shared_ptr<Store> primary_;
  const std::unique_ptr<LmdbKeyspace> copy_;
  const MirrorOptions options_;
  std::atomic<Revision> mirrored_{0};

  mutable std::atomic<bool> serving_{false};  // reads come from the copy; written under mutex_
  mutable std::mutex mutex_;
  mutable std::condition_variable wake_;
  mutable std::optional<Error> failure_;  // of the primary, while serving_; under mutex_
  bool ends_ = false;                     // under mutex_

  // Used by the thread only.
  bool told_serving_ = false;
  std::optional<std::chrono::steady_clock::time_point> tell_again_;
  bool copy_fails_ = false;
  std::thread thread_;
};

// Whether a store may be opened in `primary_directory`. kUnavailable when it has no store although this host has a copy
// of one in `mirror_directory`: a folder that is not mounted looks empty, and an empty store would be created in it.
Status CheckPrimaryIsThere(const std::string& primary_directory, const std::string& mirror_directory);

// Refuses an empty database that was created where the right one is not mounted, or an old one: it would be copied over
// the last copy of the right one. Errors: kConflict with what to do. A copy that cannot be read is not an error.
Status CheckPrimaryIsNotOlder(const Store& primary, const std::string& mirror_directory);

}  // namespace vexa::store
