#include "host/records/record_cache.h"

#include <iterator>
#include <utility>

#include "host/base/json_parse.h"
#include "host/records/record_names.h"

namespace vexa::cluster {
namespace {

// A parsed record takes about six times its text (tree nodes, keys, strings) plus the cache's own bookkeeping.
constexpr std::size_t kParsedFactor = 6;
constexpr std::size_t kEntryBytes = 256;

// The rest is for records that are read for the first time: enough for the working set of several concurrent requests.
constexpr std::size_t KeptShare(std::size_t bytes) { return bytes / 4 * 3; }

}  // namespace

RecordCache::RecordCache(std::size_t max_bytes) : max_shard_bytes_(max_bytes / kShards) {}

Result<Record> RecordCache::Parse(std::string_view key, const store::ValueView& value, std::uint64_t reader) {
  Shard& shard = ShardOf(key);
  if (Record cached = Lookup(shard, key, value.revision, reader)) return cached;
  Result<Json::Value> parsed = ParseJson(value.text, SharedName);
  if (!parsed) {
    return Error(ErrorCode::kCorrupt, "The record '" + std::string(key) + "' cannot be read",
                 parsed.error().ToString());
  }
  Record record = std::make_shared<const Json::Value>(std::move(*parsed));
  Insert(shard, {std::string(key), value.revision, record, kEntryBytes + kParsedFactor * value.text.size(), reader});
  return record;
}

Record RecordCache::Find(std::string_view key, store::Revision revision, std::uint64_t reader) {
  return Lookup(ShardOf(key), key, revision, reader);
}

Record RecordCache::Lookup(Shard& shard, std::string_view key, store::Revision revision, std::uint64_t reader) {
  const std::lock_guard lock(shard.mutex);
  const auto found = shard.by_key.find(key);
  if (found == shard.by_key.end() || found->second->revision != revision) return nullptr;
  const auto entry = found->second;
  if (!entry->kept && reader != 0 && entry->reader == reader) {
    shard.fresh.splice(shard.fresh.begin(), shard.fresh, entry);
  } else {
    Keep(shard, entry);
  }
  return entry->record;
}

void RecordCache::Keep(Shard& shard, std::list<Entry>::iterator entry) {
  shard.kept.splice(shard.kept.begin(), entry->kept ? shard.kept : shard.fresh, entry);
  if (!entry->kept) shard.kept_bytes += entry->bytes;
  entry->kept = true;
  while (shard.kept_bytes > KeptShare(max_shard_bytes_)) {
    const auto last = std::prev(shard.kept.end());
    last->kept = false;
    shard.kept_bytes -= last->bytes;
    shard.fresh.splice(shard.fresh.begin(), shard.kept, last);
  }
}

void RecordCache::Drop(Shard& shard, std::list<Entry>::iterator entry) {
  shard.by_key.erase(entry->key);
  shard.bytes -= entry->bytes;
  if (entry->kept) shard.kept_bytes -= entry->bytes;
  (entry->kept ? shard.kept : shard.fresh).erase(entry);
}

void RecordCache::Insert(Shard& shard, Entry entry) {
  if (entry.bytes > max_shard_bytes_) return;
  const std::lock_guard lock(shard.mutex);
  bool keep = false;
  if (const auto found = shard.by_key.find(entry.key); found != shard.by_key.end()) {
    // A reader of an older snapshot must not evict what newer ones use.
    if (found->second->revision >= entry.revision) return;
    keep = found->second->kept;
    Drop(shard, found->second);
  }
  shard.bytes += entry.bytes;
  shard.fresh.push_front(std::move(entry));
  shard.by_key.emplace(shard.fresh.front().key, shard.fresh.begin());
  if (keep) Keep(shard, shard.fresh.begin());
  while (shard.bytes > max_shard_bytes_) {
    // The newest entry stays, however large.
    Drop(shard, std::prev(shard.fresh.size() > 1 || shard.kept.empty() ? shard.fresh.end() : shard.kept.end()));
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
