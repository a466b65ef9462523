// Parsed records, so that a record read often is parsed once per revision.
#pragma once

#include <json/value.h>

#include <array>
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

// Bounded by an estimate of what the parsed records take; the least recently used go first.
// Threads: any, at the same time.
class RecordCache {
 public:
  explicit RecordCache(std::size_t max_bytes);

  // The record parsed from `value`, which stands under `key`. kCorrupt when its text is no JSON.
  Result<Record> Parse(std::string_view key, const store::ValueView& value);

  // What the cached records are estimated to take.
  std::size_t bytes() const;

 private:
  struct Entry {
    std::string key;
    store::Revision revision;
    Record record;
    std::size_t bytes;
  };
  struct Shard {
    mutable std::mutex mutex;
    std::list<Entry> entries;  // most recently used first
    std::unordered_map<std::string_view, std::list<Entry>::iterator> by_key;
    std::size_t bytes = 0;
  };
  static constexpr std::size_t kShards = 8;

  Record Lookup(Shard& shard, std::string_view key, store::Revision revision);
  void Insert(Shard& shard, Entry entry);

  const std::size_t max_shard_bytes_;
  std::array<Shard, kShards> shards_;
};

}  // namespace vexa::cluster
