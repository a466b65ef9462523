// Whether the data file of an open store still lies where it was opened.
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

// A memory map and its descriptor go on working when the folder has been moved away or replaced, and what is in memory
// can be read when the disk cannot. Whoever trusted them would commit to files that nobody will find again. So the
// file is opened again by its path and its head read from the disk, once in kLookInterval by whoever comes first.
// The file must be the very one that was opened first: another one counts its own revisions, and what this process
// knows of the first would be wrong of it.
// Threads: any, at the same time. One looks and the others go on meanwhile; a look that does not end counts as failed.
class StorePlace {
 public:
  static constexpr std::chrono::milliseconds kLookInterval{1000};
  static constexpr std::chrono::milliseconds kLookIntervalWhenGone{250};
  static constexpr std::chrono::milliseconds kLongestLook{1500};

  // `opened` is the file that is open. `look` is for tests; without it the file at `path` is looked at.
  StorePlace(std::string path, const FolderId& opened, std::function<Status()> look = {},
             PlaceCheck check = PlaceCheck::kFile);

  // kUnavailable: the file is not there, is another one, cannot be read, or does not answer. At most kLookInterval old.
  Status Check() const;

 private:
  using Clock = std::chrono::steady_clock;
  Status CheckSlowly(Clock::time_point now) const;
  Status Look() const;

  const std::string path_;
  const FolderId opened_;
  const std::function<Status()> look_;
  const PlaceCheck check_;
  // What most callers read: until then the file counts as being in its place.
  mutable std::atomic<Clock::rep> in_place_until_{0};
  mutable std::mutex mutex_;
  mutable bool looking_ = false;            // under mutex_
  mutable Clock::time_point look_began_{};  // under mutex_
  mutable Clock::time_point next_look_{};   // under mutex_
  mutable Status found_;                    // under mutex_
};

}  // namespace vexa::store
