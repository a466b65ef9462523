// Caches parsed records, so that a record that is read often is parsed once per revision.
#pragma once

#include <json/value.h>

#include <array>
#include <cstdint>
#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <unordered_map>

#include "host/base/result.h"
#include "host/store/store.h"

namespace vexa::cluster {

using Record = std::shared_ptr<const Json::Value>;

// Limited by an estimate of the memory that the parsed records take. Records requested by several readers are kept
// longer than those of a single reader: a pass over every guest of a large cluster evicts what it brought in itself,
// not the hosts and repositories that every request needs. Among equals, the least recently used are evicted first.
// Threads: any, at the same time.
class RecordCache {
 public:
  explicit RecordCache(std::size_t max_bytes);

  // The record parsed from `value`, which is stored under `key`. kCorrupt when its text is not JSON. Calls with the
  // same `reader` count as one reader; each call with 0 counts as a separate one.
  Result<Record> Parse(std::string_view key, const store::ValueView& value, std::uint64_t reader = 0);

  // The cached record of this key and revision; null when absent. Counts as a read, as above.
  Record Find(std::string_view key, store::Revision revision, std::uint64_t reader = 0);

  // The estimated size of the cached records.
  std::size_t bytes() const;

 private:
  struct Entry {
    std::string key;
    store::Revision revision;
    Record record;
    std::size_t bytes;
    std::uint64_t reader;  // the first reader
    bool kept = false;     // a second reader requested it
  };
  struct Shard {
    mutable std::mutex mutex;
    std::list<Entry> fresh;  // most recently used first; also the next member
    std::list<Entry> kept;
    std::unordered_map<std::string_view, std::list<Entry>::iterator> by_key;
    std::size_t bytes = 0;
    std::size_t kept_bytes = 0;
  };
  static constexpr std::size_t kShards = 8;

  Shard& ShardOf(std::string_view key) { return shards_[std::hash<std::string_view>{}(key) % kShards]; }
  Record Lookup(Shard& shard, std::string_view key, store::Revision revision, std::uint64_t reader);
  void Insert(Shard& shard, Entry entry);
  void Keep(Shard& shard, std::list<Entry>::iterator entry);
  static void Drop(Shard& shard, std::list<Entry>::iterator entry);

  const std::size_t max_shard_bytes_;
  std::array<Shard, kShards> shards_;
};

}  // namespace vexa::cluster
