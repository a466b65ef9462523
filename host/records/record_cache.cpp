#include "host/records/record_cache.h"

#include <fmt/format.h>

#include <iterator>
#include <utility>

#include "host/base/json_parse.h"
#include "host/records/record_names.h"

namespace vexa::records {
namespace {

// A parsed record takes about six times its text (tree nodes, keys, strings) plus the cache's own bookkeeping.
constexpr std::size_t kParsedFactor = 6;
constexpr std::size_t kEntryBytes = 256;

// The size of the protected segment. The rest is for records that were read once: enough for the working set of several
// concurrent requests.
constexpr std::size_t ProtectedShare(std::size_t bytes) { return bytes / 4 * 3; }

}  // namespace

Result<Json::Value> ParseRecord(std::string_view key, std::string_view text) {
  Result<Json::Value> parsed = ParseJson(text, InternedName);
  if (parsed) return parsed;
  return Error(ErrorCode::kCorrupt, fmt::format("The record '{}' cannot be read", key), parsed.error().ToString());
}

RecordCache::RecordCache(std::size_t max_bytes) : max_shard_bytes_(max_bytes / kShards) {}

Result<Record> RecordCache::Parse(std::string_view key, const store::ValueView& value, std::uint64_t reader) {
  Shard& shard = ShardOf(key);
  if (Record cached = Lookup(shard, key, value.revision, reader)) return cached;
  Result<Json::Value> parsed = ParseRecord(key, value.text);
  if (!parsed) return parsed.error();
  Record record = std::make_shared<const Json::Value>(std::move(*parsed));
  Insert(shard, {std::string(key), value.revision, record, kEntryBytes + kParsedFactor * value.text.size(), reader});
  return record;
}

Record RecordCache::Find(std::string_view key, store::Revision revision, std::uint64_t reader) {
  return Lookup(ShardOf(key), key, revision, reader);
}

Record RecordCache::Lookup(Shard& shard, std::string_view key, store::Revision revision, std::uint64_t reader) {
  const MutexLock lock(shard.mutex);
  const auto found = shard.by_key.find(key);
  if (found == shard.by_key.end() || found->second->revision != revision) return nullptr;
  const auto entry = found->second;
  if (!entry->is_protected && reader != 0 && entry->reader == reader) {
    shard.probationary.splice(shard.probationary.begin(), shard.probationary, entry);
  } else {
    Protect(shard, entry);
  }
  return entry->record;
}

void RecordCache::Protect(Shard& shard, std::list<Entry>::iterator entry) {
  shard.protected_entries.splice(shard.protected_entries.begin(),
                                 entry->is_protected ? shard.protected_entries : shard.probationary, entry);
  if (!entry->is_protected) shard.protected_bytes += entry->bytes;
  entry->is_protected = true;
  while (shard.protected_bytes > ProtectedShare(max_shard_bytes_)) {
    const auto oldest = std::prev(shard.protected_entries.end());
    oldest->is_protected = false;
    shard.protected_bytes -= oldest->bytes;
    shard.probationary.splice(shard.probationary.begin(), shard.protected_entries, oldest);
  }
}

void RecordCache::Evict(Shard& shard, std::list<Entry>::iterator entry) {
  shard.by_key.erase(entry->key);
  shard.bytes -= entry->bytes;
  if (entry->is_protected) shard.protected_bytes -= entry->bytes;
  (entry->is_protected ? shard.protected_entries : shard.probationary).erase(entry);
}

void RecordCache::Insert(Shard& shard, Entry entry) {
  if (entry.bytes > max_shard_bytes_) return;
  const MutexLock lock(shard.mutex);
  bool protect = false;
  if (const auto found = shard.by_key.find(entry.key); found != shard.by_key.end()) {
    // A reader of an older snapshot must not evict what newer ones use.
    if (found->second->revision >= entry.revision) return;
    protect = found->second->is_protected;
    Evict(shard, found->second);
  }
  shard.bytes += entry.bytes;
  shard.probationary.push_front(std::move(entry));
  shard.by_key.emplace(shard.probationary.front().key, shard.probationary.begin());
  if (protect) Protect(shard, shard.probationary.begin());
  while (shard.bytes > max_shard_bytes_) {
    // The newest entry stays, however large it is.
    Evict(shard,
          std::prev(shard.probationary.size() > 1 || shard.protected_entries.empty() ? shard.probationary.end()
                                                                                     : shard.protected_entries.end()));
  }
}

std::size_t RecordCache::bytes() const {
  std::size_t total = 0;
  for (const Shard& shard : shards_) {
    const MutexLock lock(shard.mutex);
    total += shard.bytes;
  }
  return total;
}

}  // namespace vexa::records
