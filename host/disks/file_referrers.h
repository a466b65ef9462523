// Finds the records that refer to a file of this host: those of disks, of guests (UEFI variables, CD-ROM drives) and of
// ISO images.
#pragma once

#include <map>
#include <set>
#include <string>

#include "host/base/result.h"
#include "host/disks/disk_files.h"
#include "host/store/store.h"

namespace vexa::disks {

inline constexpr char kDiskPath[] = "path";  // the member of the records of disks and images

// What refers to a file. Of several referrers, the first in this order is reported.
enum class FileReferrer { kDisk, kNvram, kCdromDrive, kImage };

// A clause: "the record of another disk refers to it".
std::string Describe(FileReferrer referrer);

// The file that exists at a path.
struct QueriedFile {
  FileIdentity identity;
  std::string hidden;  // the file's current name in its folder; "" while it has its own
};

// Which records to exclude, and which refer to files of this host.
struct FileReferrerQuery {
  // Only the records of this host count, because the same path on another host is another file. "": those of all hosts.
  std::string host_id;
  std::set<std::string> except_disks;  // their ids
  // The drives and UEFI variables of a guest that is being deleted (kBeingDeleted) do not count for its own files. For
  // one whose record no longer exists (kGone), neither do disks whose records name it as their guest, because no guest
  // lists them any more.
  enum class Guest { kKept, kBeingDeleted, kGone } guest = Guest::kKept;
  std::string guest_id;
  std::set<FileReferrer> kinds = {FileReferrer::kDisk, FileReferrer::kNvram, FileReferrer::kCdromDrive,
                                  FileReferrer::kImage};
};

// Returns the paths of `files` (normal paths) that records refer to, with the referrer: by the same path, or by another
// path with the same last segment that leads to the same file. (Links of other names are not searched.)
//
// A disk counts when its repository's host is `host_id` or unknown; a guest's drives and UEFI variables count when the
// guest's host or its repository's is `host_id`, or the guest has no host; an image counts unless its record names
// another host. One pass over each category, which parses almost none of the records. Accesses the file system after
// the pass, when it has released its snapshot. Errors: those of the store.
Result<std::map<std::string, FileReferrer>> FindFileReferrers(const store::Store& store, const FileReferrerQuery& query,
                                                              const std::map<std::string, QueriedFile>& files);

// The revision of FileReferencesGuardKey(): read it before FindFileReferrers, and compare it in the commit that acts on
// the result.
Result<store::Revision> FileReferencesRevision(const store::Store& store);
Result<store::Revision> FileReferencesRevision(const store::Snapshot& snapshot);
// Adds the compare: the commit conflicts when a record has started to refer to a file since the snapshot.
Status CompareFileReferencesRevision(const store::Snapshot& snapshot, store::Transaction& transaction);

}  // namespace vexa::disks
