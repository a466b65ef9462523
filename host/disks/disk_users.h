// Who names a file on this host: disks, UEFI variables and drives of guests, and images of the library.
#pragma once

#include <map>
#include <set>
#include <string>

#include "host/base/result.h"
#include "host/disks/disk_files.h"
#include "host/store/store.h"

namespace vexa::guests {

// In this order: of several who name a file, the first is reported.
enum class FileUser { kDisk, kNvram, kDrive, kImage };

// That `user` names the file, as the end of a sentence: "another disk's record names it".
std::string Describe(FileUser user);

// What is there now.
struct SoughtFile {
  FileIdentity identity;
  std::string hidden;  // the file's name in its folder now; "" while it has its own
};

// What is left out, and what counts as a file of this host.
struct FileQuestion {
  // Names in records of other hosts are names of other files. "": those of all hosts count.
  std::string host_id;
  std::set<std::string> except_disks;  // their ids
  // A guest that is deleted (kLeaving) does not keep its files by its own drives and UEFI variables; one whose record
  // has gone (kGone) also not by disks whose records call them its own, which nobody lists any more.
  enum class Guest { kStaying, kLeaving, kGone } guest = Guest::kStaying;
  std::string guest_id;
  std::set<FileUser> users = {FileUser::kDisk, FileUser::kNvram, FileUser::kDrive, FileUser::kImage};
};

// Those of `files`, by normal paths, that records name, with who names each: by the same path, or by another one with
// the same last segment that leads to the same file. (Other names of a file are not looked for.)
//
// A disk counts when its repository's host is `host_id` or is not known; a guest's drives and UEFI variables when the
// guest's host or its repository's is `host_id`, or the guest has no host; an image unless its record names another
// host. One pass over each category, which parses next to none of the records. Asks the file system once the pass is
// over and no snapshot of its own is held. Errors: what the store says.
Result<std::map<std::string, FileUser>> FindFileUsers(const store::Store& store, const FileQuestion& question,
                                                      const std::map<std::string, SoughtFile>& files);

// The revision of FilesKey(): to be read before FindFileUsers, and compared by the commit that acts on its answer.
Result<store::Revision> FilesRevision(const store::Store& store);
Result<store::Revision> FilesRevision(const store::Snapshot& snapshot);

}  // namespace vexa::guests
