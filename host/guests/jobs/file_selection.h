// Which files of a guest's disks a job removes.
#pragma once

#include <cstddef>
#include <set>
#include <string>
#include <vector>

#include "host/base/result.h"
#include "host/disks/disk_files.h"
#include "host/disks/disk_users.h"
#include "host/guests/jobs/file_intent.h"
#include "host/store/store.h"

namespace vexa::guests {

// A guest that names more of one kind is not deleted: an administrator has to check its record first.
inline constexpr std::size_t kMaxListed = 16'384;

// The index of that file among the guest's, after all disks.
inline constexpr std::size_t kNvramIndex = kMaxListed;

// What is reported once the guest is gone: one sentence each.
using Notes = std::vector<std::string>;

struct NamedFile {
  std::size_t index = 0;  // of the disk, in the guest's order, or kNvramIndex
  std::string path;       // as in the record
  bool operator==(const NamedFile&) const = default;
};

std::vector<std::string> PathsOf(const std::vector<NamedFile>& files);

// The named files that are to be removed, with their hidden names.
struct Selection {
  std::vector<HiddenFile> files;
  Notes notes;  // why others are not removed
};

// Examines each file, and asks `question` about the existing ones. `images`: normal paths of the guest's ISO images,
// which are kept. No snapshot may be held: this takes time. Errors: that of the first file that could not be examined;
// those of the store.
Result<Selection> SelectFiles(const std::string& guest_id, const std::vector<NamedFile>& files,
                              const std::set<std::string>& images, const FileQuestion& question,
                              const DiskFiles& disk_files, const store::Store& store);

}  // namespace vexa::guests
