// The facts about this host that the plan of an edit depends on: files, folders, the hypervisor. For
// host/guests/edit/edit*.cpp only.
//
// A plan is made with an open snapshot of the store, where nothing may wait. So it only looks up known facts. Missing
// facts are recorded, the plan is abandoned, the facts are gathered, and the plan is made again.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <utility>

#include "host/base/refusal.h"
#include "host/base/result.h"
#include "host/guests/edit/edit.h"
#include "host/records/guest_records.h"

namespace vexa::guests {

// Threads: one at a time.
class FileFacts {
 public:
  enum class Image { kMissing, kDisk, kUsable };

  // Each returns the known fact; if it is not set, the fact is recorded as missing. ImageAt takes a normal path.
  // FolderOf returns the folder of the repository's files, or "" when the repository has no folder.
  std::optional<Image> ImageAt(const std::string& path);
  std::optional<std::string> FolderOf(const std::string& repository_id);
  // The results of EditOptions::check_pins, check_not_running and check_applies_now.
  std::optional<Result<void, Refusal>> Pins(const records::Guest& edited);
  std::optional<Result<void, Refusal>> NotRunning();
  std::optional<Result<void, Refusal>> AppliesNow(const records::Guest& edited);
  // Whether the file systems of the repository that have the files have room.
  std::optional<Result<void, Refusal>> Room(const std::string& repository_id, const std::set<std::string>& paths);

  bool HasMissingFacts() const {
    return !images_wanted_.empty() || !folders_wanted_.empty() || pins_wanted_ || not_running_wanted_ ||
           applies_wanted_ || room_wanted_;
  }
  // Gathers what is missing. May take long: no snapshot may be held. Errors: those of the store.
  Status Gather(const EditOptions& options, const std::string& guest_id);
  // Call it when an edit continues after it has changed files: the use of images may have changed.
  void ForgetImages() { images_.clear(); }

 private:
  Status GatherImages(const EditOptions& options);

  std::map<std::string, Image> images_;
  std::set<std::string> images_wanted_;
  std::map<std::string, std::string> folders_;
  std::set<std::string> folders_wanted_;
  std::map<std::string, Result<void, Refusal>> pins_;  // by the rated records
  std::optional<records::Guest> pins_wanted_;
  std::map<std::string, Result<void, Refusal>> applies_;  // likewise
  std::optional<records::Guest> applies_wanted_;
  using RoomQuery = std::pair<std::string, std::set<std::string>>;
  std::map<RoomQuery, Result<void, Refusal>> rooms_;
  std::optional<RoomQuery> room_wanted_;
  std::optional<Result<void, Refusal>> not_running_;
  bool not_running_wanted_ = false;
};

}  // namespace vexa::guests
