// Checks that the data file of an open store is still the one that was opened, and can be read.
#pragma once

#include <atomic>
#include <chrono>
#include <functional>
#include <string>

#include "host/base/mutex.h"
#include "host/base/result.h"
#include "host/store/lmdb_store.h"
#include "host/store/open_once.h"

namespace vexa::store {

// A memory map and its descriptor keep working when the folder has been moved away or replaced, and pages in memory can
// be read when the disk cannot. A store that relied on them would commit to files that are lost. So
// once per kCheckInterval, the first caller opens the file by its path and reads its header from the disk. It must be
// the file that was opened first: another file counts its own revisions, and what this process knows about the first
// would be wrong for it.
// Threads: any, at the same time. One caller checks while the others use the last result; a check that hangs counts as
// failed.
class StoreFileCheck {
 public:
  static constexpr std::chrono::milliseconds kCheckInterval{1000};
  static constexpr std::chrono::milliseconds kCheckIntervalWhenUnavailable{250};
  static constexpr std::chrono::milliseconds kMaxCheckTime{1500};

  // `opened` identifies the open file. `check_file` replaces the check of the file at `path`, for tests.
  StoreFileCheck(std::string path, const FolderId& opened, std::function<Status()> check_file = {},
                 FileCheckMode mode = FileCheckMode::kFile);

  // kUnavailable: the file is missing, is a different one, cannot be read, or does not respond. At most kCheckInterval
  // old.
  Status Check() const;

 private:
  using Clock = std::chrono::steady_clock;
  Status CheckWithLock(Clock::time_point now) const;
  Status CheckFile() const;

  const std::string path_;
  const FolderId opened_;
  const std::function<Status()> check_file_;
  const FileCheckMode mode_;
  // Until this time the last check is valid and has succeeded. Most callers read only this.
  mutable std::atomic<Clock::rep> valid_until_{0};
  mutable Mutex mutex_;
  mutable bool checking_ VEXA_GUARDED_BY(mutex_) = false;
  mutable Clock::time_point check_started_ VEXA_GUARDED_BY(mutex_){};
  mutable Clock::time_point next_check_ VEXA_GUARDED_BY(mutex_){};
  mutable Status last_result_ VEXA_GUARDED_BY(mutex_);
};

}  // namespace vexa::store
