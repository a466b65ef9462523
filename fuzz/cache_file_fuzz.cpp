// The file of a cache: anything except a complete record of this cache counts as missing, and an accepted one is read
// as it was written.
#include <string>

#include "fuzz/check.h"
#include "host/base/files.h"
#include "host/base/json_parse.h"
#include "host/cache/cache_memory.h"
#include "host/cache/cache_record.h"
#include "tests/support/temp_dir.h"

namespace {

using vexa::fuzz::Check;

const std::string kGroup = "guest";
const std::string kName = "uistatus";

void CheckRecord(const vexa::cache::CacheRecord& record) {
  Check(!record.info.isMember("data"), "the value is kept apart from what is known about it");
  for (const int valid_s : {-1, 0}) Check(vexa::cache::IsOutdated(record.info, valid_s), "it is outdated immediately");
  (void)vexa::cache::IsOutdated(record.info, 3600);
  const std::string text = vexa::cache::SerializeCacheRecord(kGroup, kName, 60, record.data);
  const auto again = vexa::cache::ParseCacheRecord(text, kGroup, kName);
  Check(again.ok() && again->data == record.data, "a written value is read again");
  Check(!vexa::cache::IsOutdated(again->info, 3600), "a new value is current");
  Check(!vexa::cache::ParseCacheRecord(text, kGroup, "other").ok(), "a record belongs to one cache");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text(vexa::fuzz::Text(data, size));
  const auto record = vexa::cache::ParseCacheRecord(text, kGroup, kName);
  if (record.ok()) {
    CheckRecord(*record);
  } else {
    Check(record.error().code() == vexa::ErrorCode::kInvalid, "a refusal is kInvalid");
    Check(vexa::IsValidUtf8(record.error().ToString()), "a refusal is text");
  }

  static const vexa::test::TempDir folder;
  static vexa::cache::CacheMemory memory;
  static const vexa::cache::CachePaths paths{folder.path(), folder.File("record"), folder.File("lock")};
  Check(vexa::WriteFileAtomically(paths.record, text, 0600).ok(), "the file is written");
  const auto loaded = memory.Load(paths, kGroup, kName);
  Check((loaded.record != nullptr) == record.ok(), "exactly the valid records are loaded");
  Check(!record.ok() || loaded.record->data == record->data, "what is loaded is what the file has");
  return 0;
}
