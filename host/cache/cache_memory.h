// Records of caches as they were last read, so that one is parsed once however often it is read.
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
  std::shared_ptr<const CacheRecord> record;  // null: nothing is cached, or it is no record
  FileStamp stamp;                            // of the file it stands in; another one after every replacement
};

// Threads: any, at the same time. Those that read the same record wait for the first of them to parse it, and for
// nothing else.
class CacheMemory {
 public:
  // The record that the file now holds. Everything that is no whole record of this cache counts as none: torn, larger
  // than kMaxCacheBytes, not a private file of this user.
  LoadedCache Load(const CachePaths& paths, const std::string& group, const std::string& name);

  // Saves the next Load the parsing when the file then holds `text`, whose record is `record`.
  void Expect(const CachePaths& paths, std::string text, std::shared_ptr<const CacheRecord> record);

  // What becomes of refreshes is logged when it changes: the first failure, and the first success after one.
  void NoteFailure(const CachePaths& paths, const Error& error);
  void NoteSuccess(const CachePaths& paths);

 private:
  struct Slot {
    std::mutex mutex;
    bool is_known = false;  // the rest tells what the file is
    FileStamp stamp;
    std::shared_ptr<const CacheRecord> record;
    // The text of `record` while the stamp alone does not prove that the file is the same.
    bool has_text = false;
    std::string text;
    bool has_failed = false;
  };

  Slot& SlotOf(const CachePaths& paths);

  std::mutex mutex_;
  std::map<std::string, Slot, std::less<>> slots_;  // by the record's path; never removed
};

}  // namespace vexa::cluster
