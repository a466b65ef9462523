// A cluster's store with a copy of it on this host, for the time that the cluster's cannot be read.
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
  std::string directory;  // of the copy, made when missing; what is damaged in it is made again
  // A primary that fails is asked so often whether it works again.
  std::chrono::milliseconds retry{250};
  // After each writing of the copy further changes are gathered for so long.
  std::chrono::milliseconds gather{200};
  // Called on the mirror's own thread whenever reads begin to come from the copy or from the primary again, and once
  // more a second later, for what was being found out meanwhile. It may read the store and must not destroy it.
  std::function<void()> on_change{};
};

// Reads come from the primary. While it cannot be read (its Read fails, or its health is kInaccessible) they come from
// the copy: health() is kInaccessible then, and commits and watches are refused with the primary's error. That ends by
// itself, at most `retry` after the primary works again. While all is well a read costs one atomic load more.
//
// The copy is one state that the primary had, revisions of the store and of each value included: never a mixture, and
// never ahead. It is behind by `gather` and the time of a commit. A snapshot of the copy may therefore be older than
// one that the caller had of the primary before; revisions go back once when the copy takes over, and forward again
// when the primary does. A value with a revision that a reader knows is still the value that it knows.
//
// The copy is written in one transaction each time, so a kill at any point leaves the state before or the one after.
// After a start it is compared as a whole first, since the primary may have been put back from a backup meanwhile;
// until that has been done once the copy is not used, and a primary that fails is a store that fails. Comparing holds
// one snapshot of the primary, for seconds when the store is large.
//
// Only failing to take a snapshot brings the copy in. A single value that cannot be read is an error of that read.
// Threads: any, at the same time.
class MirroredStore final : public Store {
 public:
  // Errors: kInvalid (no folder named), and what keeps the copy from being opened: kDenied, kNoSpace, kInternal.
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

  mutable std::atomic<bool> serving_{false};  // the copy is read; written under mutex_
  mutable std::mutex mutex_;
  mutable std::condition_variable wake_;
  mutable std::optional<Error> failure_;  // of the primary, while serving_; under mutex_
  bool ends_ = false;                     // under mutex_

  // Of the thread alone.
  bool told_serving_ = false;
  std::optional<std::chrono::steady_clock::time_point> tell_again_;
  bool copy_fails_ = false;
  std::thread thread_;
};

// Whether a store may be opened in `primary_directory`: kUnavailable when there is none although this host has a copy
// of one, in `mirror_directory`. A folder that is not mounted looks empty, and an empty store would be made in it.
Status CheckPrimaryIsThere(const std::string& primary_directory, const std::string& mirror_directory);

// An empty database that was made where the right one is not mounted, or an old one, would be copied over the last copy
// of the right one. Errors: kConflict with what to do. Not an error: the copy cannot be read.
Status CheckPrimaryIsNotOlder(const Store& primary, const std::string& mirror_directory);

}  // namespace vexa::store
