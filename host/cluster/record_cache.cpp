#include "host/cluster/record_cache.h"

#include <utility>

#include "host/base/json_parse.h"
#include "host/cluster/record_names.h"

namespace vexa::cluster {
namespace {

// A parsed record takes about six times its text (tree nodes, keys, strings), and the cache's own bookkeeping.
constexpr std::size_t kParsedFactor = 6;
constexpr std::size_t kEntryBytes = 256;

}  // namespace

RecordCache::RecordCache(std::size_t max_bytes) : max_shard_bytes_(max_bytes / kShards) {}

Result<Record> RecordCache::Parse(std::string_view key, const store::ValueView& value) {
  Shard& shard = shards_[std::hash<std::string_view>{}(key) % kShards];
  if (Record cached = Lookup(shard, key, value.revision)) return cached;
  Result<Json::Value> parsed = ParseJson(value.text);
  if (!parsed) {
    return Error(ErrorCode::kCorrupt, "The record '" + std::string(key) + "' cannot be read",
                 parsed.error().ToString());
  }
  Record record = std::make_shared<const Json::Value>(WithSharedNames(std::move(*parsed)));
  Insert(shard, {std::string(key), value.revision, record, kEntryBytes + kParsedFactor * value.text.size()});
  return record;
}

Record RecordCache::Lookup(Shard& shard, std::string_view key, store::Revision revision) {
  const std::lock_guard lock(shard.mutex);
  const auto found = shard.by_key.find(key);
  if (found == shard.by_key.end() || found->second->revision != revision) return nullptr;
  shard.entries.splice(shard.entries.begin(), shard.entries, found->second);
  return found->second->record;
}

void RecordCache::Insert(Shard& shard, Entry entry) {
  if (entry.bytes > max_shard_bytes_) return;
  const std::lock_guard lock(shard.mutex);
  if (const auto found = shard.by_key.find(entry.key); found != shard.by_key.end()) {
    // A reader of an older snapshot must not push out what newer ones use.
    if (found->second->revision >= entry.revision) return;
    const auto old = found->second;
    shard.by_key.erase(found);
    shard.bytes -= old->bytes;
    shard.entries.erase(old);
  }
  shard.bytes += entry.bytes;
  shard.entries.push_front(std::move(entry));
  shard.by_key.emplace(shard.entries.front().key, shard.entries.begin());
  while (shard.bytes > max_shard_bytes_) {
    shard.bytes -= shard.entries.back().bytes;
    shard.by_key.erase(shard.entries.back().key);
    shard.entries.pop_back();
  }
}

std::size_t RecordCache::bytes() const {
  std::size_t total = 0;
  for (const Shard& shard : shards_) {
    const std::lock_guard lock(shard.mutex);
    total += shard.bytes;
  }
  return total;
}

}  // namespace vexa::cluster
