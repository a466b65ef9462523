// Checks whether the data file of an open store is still where it was opened.
#pragma once

#include <atomic>
#include <chrono>
#include <functional>
#include <mutex>
#include <string>

#include "host/base/result.h"
#include "host/store/lmdb_store.h"
#include "host/store/open_once.h"

namespace vexa::store {

// A memory map and its descriptor keep working when the folder has been moved away or replaced, and what is in memory
// can be read when the disk cannot. Trusting them would mean commits to files that can never be found again. So the
// file is reopened by its path and its head read from the disk, once per kLookInterval, by the first caller. The file
// must be the very one that was opened first: another file counts its own revisions, and what this process knows about
// the first would be wrong for it.
// Threads: any, at the same time. One caller checks while the others go on; a check that does not end counts as failed.
class StorePlace {
 public:
  static constexpr std::chrono::milliseconds kLookInterval{1000};
  static constexpr std::chrono::milliseconds kLookIntervalWhenGone{250};
  static constexpr std::chrono::milliseconds kLongestLook{1500};

  // `opened` is the file that is open. `look` is for tests; without it, the file at `path` is checked.
  StorePlace(std::string path, const FolderId& opened, std::function<Status()> look = {},
             PlaceCheck check = PlaceCheck::kFile);

  // kUnavailable: the file is missing, is a different one, cannot be read, or does not respond. At most kLookInterval
  // old.
  Status Check() const;

 private:
  using Clock = std::chrono::steady_clock;
  Status CheckSlowly(Clock::time_point now) const;
  Status Look() const;

  const std::string path_;
  const FolderId opened_;
  const std::function<Status()> look_;
  const PlaceCheck check_;
  // What most callers read: until this time the file counts as being in its place.
  mutable std::atomic<Clock::rep> in_place_until_{0};
  mutable std::mutex mutex_;
  mutable bool looking_ = false;            // under mutex_
  mutable Clock::time_point look_began_{};  // under mutex_
  mutable Clock::time_point next_look_{};   // under mutex_
  mutable Status found_;                    // under mutex_
};

}  // namespace vexa::store
