// What the plan of an edit needs to know about this machine: files, folders, the hypervisor. For
// host/guests/edit/edit*.cpp only.
//
// A plan is made inside a commit, with a snapshot of the store, where nothing may wait. So it only looks up known
// facts. Missing facts are noted and gathered after the plan has been abandoned, and then the plan is made again.
#pragma once

#include <map>
#include <optional>
#include <set>
#include <string>

#include "host/base/refusal.h"
#include "host/base/result.h"
#include "host/guests/edit/edit.h"
#include "host/records/guest_records.h"

namespace vexa::guests {

// Threads: one at a time.
class FileFacts {
 public:
  enum class Image { kMissing, kDisk, kUsable };

  // Each returns the known fact, or notes that it is missing. An image is a normal path; a folder is that of the
  // repository's files, or "" when the repository has no folder.
  std::optional<Image> ImageAt(const std::string& path);
  std::optional<std::string> FolderOf(const std::string& repository_id);
  // EditOptions::rate_pins and refuse_active. Set without a refusal: there is no obstacle.
  std::optional<Refused> Pins(const Guest& edited);
  std::optional<Refused> Active();

  bool IsLacking() const {
    return !images_wanted_.empty() || !folders_wanted_.empty() || pins_wanted_ || active_wanted_;
  }
  // Gathers what is missing. May take long: no snapshot may be held. Errors: those of the store.
  Status Gather(const EditOptions& options, const std::string& guest_id);
  // For an edit that continues after it has changed files: whether images are in use may have changed.
  void ForgetImages() { images_.clear(); }

 private:
  Status GatherImages(const EditOptions& options);

  std::map<std::string, Image> images_;
  std::set<std::string> images_wanted_;
  std::map<std::string, std::string> folders_;
  std::set<std::string> folders_wanted_;
  std::map<std::string, Refused> pins_;  // by the rated records
  std::optional<Guest> pins_wanted_;
  std::optional<Refused> active_;
  bool active_wanted_ = false;
};

}  // namespace vexa::guests
