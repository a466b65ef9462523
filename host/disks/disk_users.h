// Finds out what names a file on this host: disks, UEFI variables and drives of guests, and images of the library.
#pragma once

#include <map>
#include <set>
#include <string>

#include "host/base/result.h"
#include "host/disks/disk_files.h"
#include "host/store/store.h"

namespace vexa::guests {

// In this order: of several users of a file, the first is reported.
inline constexpr char kDiskPath[] = "path";  // a member of disks' records

enum class FileUser { kDisk, kNvram, kDrive, kImage };

// States that `user` names the file, as the end of a sentence: "another disk's record names it".
std::string Describe(FileUser user);

// The file that is there now.
struct SoughtFile {
  FileIdentity identity;
  std::string hidden;  // the file's current name in its folder; "" while it has its own
};

// What to exclude, and what counts as a file of this host.
struct FileQuestion {
  // Names in other hosts' records refer to other files. "": the names of all hosts count.
  std::string host_id;
  std::set<std::string> except_disks;  // their ids
  // The drives and UEFI variables of a guest that is being deleted (kLeaving) do not count for its own files. For one
  // whose record no longer exists (kGone), neither do disks whose records name it as their guest, because no guest
  // lists them any more.
  enum class Guest { kStaying, kLeaving, kGone } guest = Guest::kStaying;
  std::string guest_id;
  std::set<FileUser> users = {FileUser::kDisk, FileUser::kNvram, FileUser::kDrive, FileUser::kImage};
};

// Returns the files, by normal path, that records name, with who names each: by the same path, or by another path with
// the same last segment that leads to the same file. (Other names of a file are not searched.)
//
// A disk counts when its repository's host is `host_id` or unknown; a guest's drives and UEFI variables count when the
// guest's host or its repository's is `host_id`, or the guest has no host; an image counts unless its record names
// another host. One pass over each category, which parses almost none of the records. Asks the file system once the
// pass is over and no snapshot of its own is held. Errors: those of the store.
Result<std::map<std::string, FileUser>> FindFileUsers(const store::Store& store, const FileQuestion& question,
                                                      const std::map<std::string, SoughtFile>& files);

// The revision of FilesKey(): read it before FindFileUsers, and compare it in the commit that acts on the result.
Result<store::Revision> FilesRevision(const store::Store& store);
Result<store::Revision> FilesRevision(const store::Snapshot& snapshot);

}  // namespace vexa::guests
