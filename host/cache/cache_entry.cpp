#include "host/cache/cache_entry.h"

#include <exception>
#include <memory>
#include <mutex>
#include <utility>

#include "host/records/environment.h"

namespace vexa::cluster {
namespace {

// Belongs to the environment that is installed now.
CacheMemory& CurrentCacheMemory() {
  static std::mutex mutex;
  static std::unique_ptr<CacheMemory> memory;
  static std::uint64_t number = 0;
  const std::lock_guard lock(mutex);
  if (!memory || number != EnvironmentNumber()) {
    memory = std::make_unique<CacheMemory>();
    number = EnvironmentNumber();
  }
  return *memory;
}

}  // namespace

CacheEntry::CacheEntry(const VexaDR::Cache::DRCache& cache) : cache_(cache), names_(cache) {
  if (const Environment* environment = CurrentEnvironment()) {
    paths_ = PathsOfCache(environment->cache_directory, names_.group, names_.name);
  }
}

LoadedCache CacheEntry::Load() const {
  return is_stored() ? CurrentCacheMemory().Load(*paths_, names_.group, names_.name) : LoadedCache();
}

Result<CacheLock> CacheEntry::TryLock() const { return CacheLock::Try(*paths_); }

bool CacheEntry::IsFresh(const LoadedCache& loaded, const LoadedCache& before) const {
  if (!loaded.record || !cache_.IsValid(loaded.record->data)) return false;
  if (!cache_.IsDataTimeout(loaded.record->info)) return true;
  return loaded.record != before.record && !(loaded.stamp == before.stamp);
}

CacheEntry::Refreshed CacheEntry::Refresh(const CacheLock&) const {
  Refreshed refreshed;
  Result<Json::Value> found = FindOut();
  if (!found) {
    NoteFailure(found.error());
    return refreshed;
  }
  const Status stored = Store(*found);
  if (stored) {
    CurrentCacheMemory().NoteSuccess(*paths_);
  } else {
    NoteFailure(stored.error());
  }
  refreshed.value = std::move(*found);
  refreshed.was_stored = stored.ok();
  return refreshed;
}

std::optional<Json::Value> CacheEntry::RefreshUnstored() const {
  Result<Json::Value> found = FindOut();
  return found ? std::optional(std::move(*found)) : std::nullopt;
}

void CacheEntry::NoteFailure(const Error& error) const { CurrentCacheMemory().NoteFailure(*paths_, error); }

// Derived classes run foreign code: an exception from it must not end a thread or a request.
Result<Json::Value> CacheEntry::FindOut() const {
  try {
    Json::Value data;
    if (!cache_.GetUpdatedData(data)) return Error(ErrorCode::kUnavailable, "The value could not be found out");
    if (!cache_.IsValid(data)) return Error(ErrorCode::kInvalid, "The computed value is not valid for this cache");
    return data;
  } catch (const std::exception& exception) {
    return Error(ErrorCode::kInternal, "Finding the value out failed", exception.what());
  }
}

// Parsed before it is stored: a value that readers could not parse must not replace one that they can. Readers then
// find it already parsed.
Status CacheEntry::Store(const Json::Value& data) const {
  std::string text = MakeCacheRecordText(names_.group, names_.name, names_.valid_s, data);
  if (text.size() > kMaxCacheBytes) return Error(ErrorCode::kNoSpace, "The value is too large to be stored");
  Result<CacheRecord> record = ParseCacheRecord(text, names_.group, names_.name);
  if (!record) return Error(ErrorCode::kInvalid, "The value cannot be stored", record.error().ToString());
  if (Status written = ReplaceCacheFile(*paths_, text); !written) return written;
  CurrentCacheMemory().Expect(*paths_, std::move(text), std::make_shared<const CacheRecord>(std::move(*record)));
  return {};
}

namespace {

RefreshOutcome TryRefresh(const CacheEntry& entry, WhenDue when) {
  const LoadedCache before = entry.Load();
  const Result<CacheLock> lock = entry.TryLock();
  if (!lock && lock.error().code() == ErrorCode::kBusy) return RefreshOutcome::kBusy;
  if (!lock) {
    entry.NoteFailure(lock.error());
    return RefreshOutcome::kFailed;
  }
  if (when == WhenDue::kOutdated && entry.IsFresh(entry.Load(), before)) return RefreshOutcome::kCurrent;
  return entry.Refresh(*lock).was_stored ? RefreshOutcome::kCurrent : RefreshOutcome::kFailed;
}

}  // namespace

RefreshOutcome RefreshWhenDue(const VexaDR::Cache::DRCache& cache, WhenDue when) {
  const CacheEntry entry(cache);
  if (!entry.is_stored()) return RefreshOutcome::kCurrent;
  try {
    return TryRefresh(entry, when);
  } catch (const std::exception& exception) {
    entry.NoteFailure(Error(ErrorCode::kInternal, "Looking at the value failed", exception.what()));
    return RefreshOutcome::kFailed;
  }
}

}  // namespace vexa::cluster
