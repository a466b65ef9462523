// Caches parsed records, so that a record that is read often is parsed once per revision.
#pragma once

#include <json/value.h>

#include <array>
#include <cstdint>
#include <list>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>

#include "host/base/mutex.h"
#include "host/base/result.h"
#include "host/store/store.h"

namespace vexa::records {

using Record = std::shared_ptr<const Json::Value>;

// Parses `text`, the value under `key`. kCorrupt when it is not JSON.
Result<Json::Value> ParseRecord(std::string_view key, std::string_view text);

// A segmented LRU cache, limited by an estimate of the memory that the parsed records take. A record starts in the
// probationary segment and moves to the protected one when a second reader requests it: so a pass over every guest of a
// large cluster evicts what it brought in itself, not the hosts and repositories that every request needs. In each
// segment, the least recently used record is evicted first.
// Threads: any, at the same time.
class RecordCache {
 public:
  explicit RecordCache(std::size_t max_bytes);

  // The record parsed from `value`, the value under `key`. kCorrupt when its text is not JSON. `reader` is the number
  // of a Reader; each call with 0 counts as a reader of its own.
  Result<Record> Parse(std::string_view key, const store::ValueView& value, std::uint64_t reader = 0);

  // The cached record of this key and revision; null when absent. Counts as a read, as above.
  Record Find(std::string_view key, store::Revision revision, std::uint64_t reader = 0);

  // The estimated size of the cached records, in bytes.
  std::size_t bytes() const;

 private:
  struct Entry {
    std::string key;
    store::Revision revision;
    Record record;
    std::size_t bytes;
    std::uint64_t reader;       // the first one
    bool is_protected = false;  // in the protected segment
  };
  struct Shard {
    mutable Mutex mutex;
    std::list<Entry> probationary VEXA_GUARDED_BY(mutex);  // most recently used first; also the next member
    std::list<Entry> protected_entries VEXA_GUARDED_BY(mutex);
    std::unordered_map<std::string_view, std::list<Entry>::iterator> by_key VEXA_GUARDED_BY(mutex);
    std::size_t bytes VEXA_GUARDED_BY(mutex) = 0;
    std::size_t protected_bytes VEXA_GUARDED_BY(mutex) = 0;
  };
  static constexpr std::size_t kShards = 8;

  Shard& ShardOf(std::string_view key) { return shards_[std::hash<std::string_view>{}(key) % kShards]; }
  Record Lookup(Shard& shard, std::string_view key, store::Revision revision, std::uint64_t reader);
  void Insert(Shard& shard, Entry entry);
  void Protect(Shard& shard, std::list<Entry>::iterator entry) VEXA_REQUIRES(shard.mutex);
  static void Evict(Shard& shard, std::list<Entry>::iterator entry) VEXA_REQUIRES(shard.mutex);

  const std::size_t max_shard_bytes_;
  std::array<Shard, kShards> shards_;
};

}  // namespace vexa::records
