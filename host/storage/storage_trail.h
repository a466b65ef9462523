// Which folders files are in, so that a folder is not taken for another one that was mounted in its place, or is there
// because nothing is mounted.
//
// A trail has an identity for each folder from one of the folders of images (a root) down to a file's folder. It is
// kept beside what names the file, in JSON; whoever finds the file missing later asks first whether the folders are
// still the same.
//
// Everything here that looks at folders may wait for ever for a file system that does not answer. Callers hold neither
// a lock nor a snapshot; see BoundedCalls.
// Threads: any, at the same time.
#pragma once

#include <json/value.h>

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "host/base/result.h"

namespace vexa::guests {

// What stays of a folder when its file system is mounted elsewhere, and after a restart.
struct FolderIdentity {
  std::uint64_t inode = 0;
  std::optional<std::string> born;  // "<seconds>.<nanoseconds>"; many file systems keep no time of birth
  std::uint64_t file_system = 0;    // f_fsid; 0 where the file system has none
};

// "ino=2 fsid=8f3a born=1700000000.000000001"
std::string IdentityText(const FolderIdentity& identity);
// Not set for any other text.
std::optional<FolderIdentity> ParseIdentity(std::string_view text);

// Whether both are of one folder. The file system's id decides only where there is no time of birth, since it may
// follow the device's number.
bool IsSameFolder(const FolderIdentity& one, const FolderIdentity& other);
// The same of two texts; false when one of them is not an identity's.
bool IsSameFolder(std::string_view one, std::string_view other);

// Identities' texts by folder. A root ends in a slash ("/srv/images/") and may be a symbolic link; folders below it do
// not ("/srv/images/pool-1") and may not.
using Trail = std::map<std::string, std::string, std::less<>>;

// As a member of a record, and back. What is not an object is an empty trail; an identity that is not a text becomes
// one that no folder has.
Json::Value TrailJson(const Trail& trail);
Trail TrailFromJson(const Json::Value& value);

// The folders that the trail of a file has, the root first; the longest of `roots` that it lies below counts. None for
// a path that is not a file's (NormalPath), or lies outside of the roots.
std::vector<std::string> TrailFolders(const std::vector<std::string>& roots, std::string_view path);
// The entries of `known` that belong to the trail of the file.
Trail PartOf(const Trail& known, const std::vector<std::string>& roots, std::string_view path);

// What is there now.
struct TrailLook {
  Trail folders;          // as far down as there are folders
  bool has_file = false;  // a regular file, in the last of them
};
// Errors: kInvalid (the path is not a file's, lies outside of the roots or behind a symbolic link), and kInternal with
// the folder and the system's reason when one cannot be looked at.
Result<TrailLook> LookAlong(const std::vector<std::string>& roots, const std::string& path);
// The folders alone.
Result<Trail> TrailOf(const std::vector<std::string>& roots, const std::string& path);
// Those of all files; one that has no trail adds nothing.
Result<Trail> TrailOfAll(const std::vector<std::string>& roots, const std::vector<std::string>& paths);

struct TrailCheck {
  enum class Outcome {
    kSame,        // all folders are there and the same; also of an empty trail
    kNotMounted,  // one is not, or cannot be looked at: nothing is known about the files
    kFolderGone,  // one is missing, and the folder that it was in is the same: its files are gone
  };
  Outcome outcome = Outcome::kSame;
  std::vector<std::string> folders;  // the first that decided and, of kFolderGone, all that are gone
  std::string reason;    // a clause about the first: "the folder '…' is not the one that its disks are in"
  int error_number = 0;  // errno(3) when the first could not be looked at
};
// A missing root is kNotMounted, and so is a folder that is missing where automount(8) makes folders. kNotMounted comes
// before kFolderGone.
TrailCheck CheckTrail(const Trail& trail);

}  // namespace vexa::guests
