// The records of unfinished deletions; deletion.h explains them.
#pragma once

#include <json/value.h>

#include <chrono>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "host/base/refusal.h"
#include "host/base/result.h"
#include "host/storage/storage_trail.h"
#include "host/store/store.h"

namespace vexa::guests {

struct HiddenFile {
  std::string path;    // a normal path
  std::string hidden;  // its name in the same folder while it is hidden
};

enum class DeletionStage { kHiding, kPurging };

struct DeletionRecord {
  std::string host_id;
  std::string user;
  std::string request_id;
  std::chrono::system_clock::time_point since;  // whole seconds
  DeletionStage stage = DeletionStage::kHiding;
  std::vector<HiddenFile> files;
  std::string repository_id;  // of the guest
  Trail storage;              // the folders that contain the files
};

struct StoredDeletion {
  store::Revision revision = 0;
  std::string text;
  std::optional<DeletionRecord> record;  // not set: it is damaged
};

// Every hidden name has this prefix, and a disk's file must not.
inline constexpr std::string_view kHiddenPrefix = ".vexa-deleted-";
// The hidden name of the guest's disk `index`.
std::string HiddenName(const std::string& guest_id, std::size_t index);

// The file that DeletionText wrote as {"path", "hidden"}. Not set: it is not a file of this guest.
std::optional<HiddenFile> ParseHiddenFile(const Json::Value& value, const std::string& guest_id);

std::string DeletionText(const DeletionRecord& record);

// Not set: the guest is not being deleted. Errors: those of the store.
Result<std::optional<StoredDeletion>> ReadDeletion(const store::Snapshot& snapshot, const std::string& guest_id);

// Reports that the guest is being deleted, by whom and since when: 915.
Refusal DeletedByOther(const StoredDeletion& deletion);

// The files that hosts have left for this one, by the guest's id.
std::string LeftoverKey(const std::string& host_id, const std::string& guest_id);
struct StoredLeftover {
  store::Revision revision = 0;                   // 0: absent
  std::string repository_id;                      // "" when unknown
  std::optional<std::vector<std::string>> paths;  // not set: it is damaged
};
Result<StoredLeftover> ReadLeftover(const store::Snapshot& snapshot, const std::string& host_id,
                                    const std::string& guest_id);
std::string LeftoverText(const std::vector<std::string>& paths, const std::string& repository_id);

}  // namespace vexa::guests
