// Cache records as they were last read, so that each is parsed only once.
#pragma once

#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "host/base/private_file.h"
#include "host/cache/cache_paths.h"
#include "host/cache/cache_record.h"

namespace vexa::cluster {

struct LoadedCache {
  std::shared_ptr<const CacheRecord> record;  // null: nothing is cached, or the file is not a valid record
  FileStamp stamp;                            // of the record's file; changes with every replacement
};

// Threads: any, at the same time. Readers of the same record wait for the first of them to parse it, and for nothing
// else.
class CacheMemory {
 public:
  // The record that the file now holds. Anything except a complete record of this cache counts as missing: torn, larger
  // than kMaxCacheBytes, not a private file of this user.
  LoadedCache Load(const CachePaths& paths, const std::string& group, const std::string& name);

  // Announces that the file will hold `text`, whose record is `record`, so that the next Load need not parse it.
  void Expect(const CachePaths& paths, std::string text, std::shared_ptr<const CacheRecord> record);

  // The outcome of refreshes is logged when it changes: the first failure, and the first success after a failure.
  void NoteFailure(const CachePaths& paths, const Error& error);
  void NoteSuccess(const CachePaths& paths);

 private:
  struct Slot {
    std::mutex mutex;
    bool is_known = false;  // the other members are valid
    FileStamp stamp;
    std::shared_ptr<const CacheRecord> record;
    // Whether the text of `record` is kept, because the stamp alone does not prove that the file is unchanged.
    bool has_text = false;
    std::string text;
    bool has_failed = false;
  };

  Slot& SlotOf(const CachePaths& paths);

  std::mutex mutex_;
  std::map<std::string, Slot, std::less<>> slots_;  // by the record's path; entries are never removed
};

}  // namespace vexa::cluster
