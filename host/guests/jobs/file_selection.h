// Selects the files of a guest that a job may remove.
#pragma once

#include <cstddef>
#include <set>
#include <string>
#include <vector>

#include "host/base/result.h"
#include "host/disks/disk_files.h"
#include "host/disks/file_referrers.h"
#include "host/guests/jobs/file_intent.h"
#include "host/store/store.h"

namespace vexa::guests {

// A guest with more disks or more interfaces is not deleted: an administrator has to check its record first.
inline constexpr std::size_t kMaxListedParts = 16'384;

// The index of the file with the UEFI variables, after all disks.
inline constexpr std::size_t kNvramIndex = kMaxListedParts;

// Sentences that are logged once the job is done.
using Notes = std::vector<std::string>;

struct RecordedFile {
  std::size_t index = 0;  // of the disk, in the guest's order, or kNvramIndex
  std::string path;       // as in the record
  bool operator==(const RecordedFile&) const = default;
};

std::vector<std::string> PathsOf(const std::vector<RecordedFile>& files);

// The note about a file that is not removed.
std::string KeptFile(const std::string& path, const std::string& why);

// The recorded files that the job may remove, with their hidden names.
struct Selection {
  std::vector<HiddenFile> files;
  Notes notes;  // why others are kept
};

// Examines each file, and searches by `query` for other referrers of the existing ones. `images`: normal paths of the
// guest's ISO images, which are kept. No snapshot may be open: this takes time. Errors: that of the first file that
// could not be examined; those of the store.
Result<Selection> SelectFiles(const std::string& guest_id, const std::vector<RecordedFile>& files,
                              const std::set<std::string>& images, const disks::FileReferrerQuery& query,
                              const disks::DiskFiles& disk_files, const store::Store& store);

}  // namespace vexa::guests
