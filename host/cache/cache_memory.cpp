#include "host/cache/cache_memory.h"

#include <syslog.h>

#include <utility>

namespace vexa::cache {

CacheMemory::Slot& CacheMemory::SlotOf(const CachePaths& paths) {
  const MutexLock lock(mutex_);
  return slots_[paths.record];
}

LoadedCache CacheMemory::Load(const CachePaths& paths, const std::string& group, const std::string& name) {
  Slot& slot = SlotOf(paths);
  const MutexLock lock(slot.mutex);
  const Result<FileStamp> stamp = ReadFileStamp(paths.record);
  if (!stamp || stamp->size > static_cast<off_t>(kMaxCacheBytes)) return {};
  if (slot.is_known && !slot.has_text && slot.stamp == *stamp) return {slot.record, slot.stamp};
  Result<PrivateFile> file = ReadPrivateFile(paths.record, kMaxCacheBytes);
  if (!file) return {};
  if (!slot.has_text || slot.text != file->content) {
    Result<CacheRecord> record = ParseCacheRecord(file->content, group, name);
    slot.record = record ? std::make_shared<const CacheRecord>(std::move(*record)) : nullptr;
  }
  slot.is_known = true;
  slot.stamp = file->stamp;
  slot.has_text = file->stamp_may_repeat;
  slot.text = slot.has_text ? std::move(file->content) : std::string();
  return {slot.record, slot.stamp};
}

void CacheMemory::Prime(const CachePaths& paths, std::string text, std::shared_ptr<const CacheRecord> record) {
  Slot& slot = SlotOf(paths);
  const MutexLock lock(slot.mutex);
  slot.has_text = true;
  slot.text = std::move(text);
  slot.record = std::move(record);
}

void CacheMemory::RecordFailure(const CachePaths& paths, const Error& error) {
  Slot& slot = SlotOf(paths);
  const MutexLock lock(slot.mutex);
  if (std::exchange(slot.has_failed, true)) return;
  ::syslog(LOG_ERR, "The cache '%s' cannot be refreshed: %s", paths.record.c_str(), error.ToString().c_str());
}

void CacheMemory::RecordSuccess(const CachePaths& paths) {
  Slot& slot = SlotOf(paths);
  const MutexLock lock(slot.mutex);
  if (!std::exchange(slot.has_failed, false)) return;
  ::syslog(LOG_INFO, "The cache '%s' can be refreshed again.", paths.record.c_str());
}

}  // namespace vexa::cache
