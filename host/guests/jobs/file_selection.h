// Which files of a guest's disks a job removes.
#pragma once

#include <cstddef>
#include <set>
#include <string>
#include <vector>

#include "host/base/result.h"
#include "host/disks/disk_files.h"
#include "host/disks/disk_users.h"
#include "host/guests/jobs/deletion_record.h"
#include "host/store/store.h"

namespace vexa::guests {

// A guest that names more of one kind is not deleted: somebody has to look at its record first.
inline constexpr std::size_t kMaxListed = 16'384;

// The number of that file among the guest's, behind all disks.
inline constexpr std::size_t kNvramIndex = kMaxListed;

// What is told once the guest is gone: a sentence each.
using Notes = std::vector<std::string>;

struct NamedFile {
  std::size_t index = 0;  // of the disk, in the guest's order, or kNvramIndex
  std::string path;       // as the record has it
  bool operator==(const NamedFile&) const = default;
};

// The files among those named that are to be removed, with their hidden names.
struct Selection {
  std::vector<HiddenFile> files;
  Notes notes;  // why others are not
};

// Looks at each file, and asks `question` about those that are there. `images`: normal paths of the guest's ISO images,
// which are left. No snapshot may be held: this takes time. Errors:
// what is the matter with the first that could not be looked at; what the store says.
Result<Selection> SelectFiles(const std::string& guest_id, const std::vector<NamedFile>& files,
                              const std::set<std::string>& images, const FileQuestion& question,
                              const DiskFiles& disk_files, const store::Store& store);

}  // namespace vexa::guests
