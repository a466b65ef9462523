#include "host/cache/cache_entry.h"

#include <exception>
#include <memory>
#include <utility>

#include "host/base/mutex.h"
#include "host/records/environment.h"

namespace vexa::cache {
namespace {

// The memory for the environment that is installed now: a new environment gets an empty one.
CacheMemory& CurrentCacheMemory() {
  static Mutex mutex;
  static std::unique_ptr<CacheMemory> memory VEXA_GUARDED_BY(mutex);
  static std::uint64_t number VEXA_GUARDED_BY(mutex) = 0;
  const MutexLock lock(mutex);
  if (!memory || number != records::EnvironmentGeneration()) {
    memory = std::make_unique<CacheMemory>();
    number = records::EnvironmentGeneration();
  }
  return *memory;
}

}  // namespace

CacheEntry::CacheEntry(const VexaDR::Cache::DRCache& cache) : cache_(cache), names_(cache) {
  if (const records::Environment* environment = records::CurrentEnvironment()) {
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
  Result<Json::Value> found = Compute();
  if (!found) {
    RecordFailure(found.error());
    return refreshed;
  }
  const Status stored = Store(*found);
  if (stored) {
    CurrentCacheMemory().RecordSuccess(*paths_);
  } else {
    RecordFailure(stored.error());
  }
  refreshed.value = std::move(*found);
  refreshed.was_stored = stored.ok();
  return refreshed;
}

std::optional<Json::Value> CacheEntry::ComputeUnstored() const {
  Result<Json::Value> found = Compute();
  return found ? std::optional(std::move(*found)) : std::nullopt;
}

void CacheEntry::RecordFailure(const Error& error) const { CurrentCacheMemory().RecordFailure(*paths_, error); }

// Calls the code of derived classes: an exception from it must not end a thread or a request.
Result<Json::Value> CacheEntry::Compute() const {
  try {
    Json::Value data;
    if (!cache_.GetUpdatedData(data)) return Error(ErrorCode::kUnavailable, "The value could not be computed");
    if (!cache_.IsValid(data)) return Error(ErrorCode::kInvalid, "The computed value is not valid for this cache");
    return data;
  } catch (const std::exception& exception) {
    return Error(ErrorCode::kInternal, "Computing the value failed", exception.what());
  }
}

// Parses the value before storing it: one that readers cannot parse must not replace one that they can. The parsed
// record is put into the memory, so that readers need not parse it again.
Status CacheEntry::Store(const Json::Value& data) const {
  std::string text = SerializeCacheRecord(names_.group, names_.name, names_.valid_s, data);
  if (text.size() > kMaxCacheBytes) return Error(ErrorCode::kNoSpace, "The value is too large to be stored");
  Result<CacheRecord> record = ParseCacheRecord(text, names_.group, names_.name);
  if (!record) return Error(ErrorCode::kInvalid, "The value cannot be stored", record.error().ToString());
  if (Status written = ReplaceCacheFile(*paths_, text); !written) return written;
  CurrentCacheMemory().Prime(*paths_, std::move(text), std::make_shared<const CacheRecord>(std::move(*record)));
  return {};
}

namespace {

RefreshOutcome TryRefresh(const CacheEntry& entry, RefreshMode mode) {
  const LoadedCache before = entry.Load();
  const Result<CacheLock> lock = entry.TryLock();
  if (!lock && lock.error().code() == ErrorCode::kBusy) return RefreshOutcome::kBusy;
  if (!lock) {
    entry.RecordFailure(lock.error());
    return RefreshOutcome::kFailed;
  }
  if (mode == RefreshMode::kIfOutdated && entry.IsFresh(entry.Load(), before)) return RefreshOutcome::kCurrent;
  return entry.Refresh(*lock).was_stored ? RefreshOutcome::kCurrent : RefreshOutcome::kFailed;
}

}  // namespace

RefreshOutcome RefreshCache(const VexaDR::Cache::DRCache& cache, RefreshMode mode) {
  const CacheEntry entry(cache);
  if (!entry.is_stored()) return RefreshOutcome::kCurrent;
  try {
    return TryRefresh(entry, mode);
  } catch (const std::exception& exception) {
    entry.RecordFailure(Error(ErrorCode::kInternal, "Refreshing the value failed", exception.what()));
    return RefreshOutcome::kFailed;
  }
}

}  // namespace vexa::cache
