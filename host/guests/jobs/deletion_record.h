// The records of deletions that are not finished; deletion.h says what they mean.
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
  std::string path;    // normal
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
  std::string repository_id;  // the guest's
  Trail storage;              // the folders that the files are in
};

struct StoredDeletion {
  store::Revision revision = 0;
  std::string text;
  std::optional<DeletionRecord> record;  // not set: it is damaged
};

// Every hidden name begins like this, and no disk's file may.
inline constexpr std::string_view kHiddenPrefix = ".vexa-deleted-";
// The hidden name of the guest's disk `index`.
std::string HiddenName(const std::string& guest_id, std::size_t index);

// The file that DeletionText wrote as {"path", "hidden"}. Not set: it is none of this guest's.
std::optional<HiddenFile> ParseHiddenFile(const Json::Value& value, const std::string& guest_id);

std::string DeletionText(const DeletionRecord& record);

// Not set: the guest is not being deleted. Errors: what the store says.
Result<std::optional<StoredDeletion>> ReadDeletion(const store::Snapshot& snapshot, const std::string& guest_id);

// That the guest is being deleted, by whom and since when: 915.
Refusal DeletedByOther(const StoredDeletion& deletion);

// The files that hosts have left for this one, by the guest's id.
std::string LeftoverKey(const std::string& host_id, const std::string& guest_id);
struct StoredLeftover {
  store::Revision revision = 0;                   // 0: there is none
  std::string repository_id;                      // "" when it is not known
  std::optional<std::vector<std::string>> paths;  // not set: it is damaged
};
Result<StoredLeftover> ReadLeftover(const store::Snapshot& snapshot, const std::string& host_id,
                                    const std::string& guest_id);
std::string LeftoverText(const std::vector<std::string>& paths, const std::string& repository_id);

}  // namespace vexa::guests
