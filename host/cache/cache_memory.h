// Keeps the records of caches in memory as they were last read, so that each is parsed only once.
#pragma once

#include <map>
#include <memory>
#include <string>

#include "host/base/mutex.h"
#include "host/base/private_file.h"
#include "host/cache/cache_paths.h"
#include "host/cache/cache_record.h"

namespace vexa::cache {

struct LoadedCache {
  std::shared_ptr<const CacheRecord> record;  // null: nothing is cached, or the file is not a valid record
  FileStamp stamp;                            // of the record's file; it changes with every replacement
};

// Threads: any, at the same time. Readers of the same record wait while the first of them parses it, and for nothing
// else.
class CacheMemory {
 public:
  // The record that is now in the file. Anything except a complete record of this cache counts as missing: a file that
  // is torn, larger than kMaxCacheBytes, or not a private file of this user.
  LoadedCache Load(const CachePaths& paths, const std::string& group, const std::string& name);

  // Sets the content that the file is known to have: `text`, parsed as `record`. The next Load need not parse it.
  void Prime(const CachePaths& paths, std::string text, std::shared_ptr<const CacheRecord> record);

  // Record the outcome of a refresh. Only changes are logged: the first failure, and the first success after a failure.
  void RecordFailure(const CachePaths& paths, const Error& error);
  void RecordSuccess(const CachePaths& paths);

 private:
  struct Slot {
    Mutex mutex;
    bool is_known VEXA_GUARDED_BY(mutex) = false;  // `stamp` and `record` are valid
    FileStamp stamp VEXA_GUARDED_BY(mutex);
    std::shared_ptr<const CacheRecord> record VEXA_GUARDED_BY(mutex);
    // Whether `text` is that of `record`. Set when the stamp alone does not prove that the file is unchanged.
    bool has_text VEXA_GUARDED_BY(mutex) = false;
    std::string text VEXA_GUARDED_BY(mutex);
    bool has_failed VEXA_GUARDED_BY(mutex) = false;
  };

  Slot& SlotOf(const CachePaths& paths);

  Mutex mutex_;
  // By the record's path. Entries are never removed.
  std::map<std::string, Slot, std::less<>> slots_ VEXA_GUARDED_BY(mutex_);
};

}  // namespace vexa::cache
