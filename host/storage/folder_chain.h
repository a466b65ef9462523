// Records which folders files are in, so that a folder is not confused with another one that was mounted in its place,
// or that exists only because nothing is mounted.
//
// A folder chain has an identity for each folder from one of the image folders (a root) down to a file's folder. It is
// stored, in JSON, beside the record that refers to the file; code that later finds the file missing first checks
// whether the folders are still the same.
//
// Every function here that accesses folders may wait forever for a file system that does not respond. Callers must not
// hold a lock or an open snapshot; see BoundedCalls.
// Threads: any, at the same time.
#pragma once

#include <json/value.h>

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "host/base/descriptor.h"
#include "host/base/result.h"

namespace vexa::storage {

// The properties of a folder that survive a restart, and mounting its file system elsewhere.
struct FolderIdentity {
  std::uint64_t inode = 0;
  std::optional<std::string> birth_time;  // "<seconds>.<nanoseconds>"; many file systems do not store a birth time
  std::uint64_t file_system = 0;          // f_fsid; 0 where the file system has none
};

// "ino=2 fsid=8f3a born=1700000000.000000001"
std::string IdentityString(const FolderIdentity& identity);
// Not set for any other string.
std::optional<FolderIdentity> ParseIdentity(std::string_view text);

// The identity of an open folder or file; O_PATH is enough. Not set: errno(3) has the reason.
std::optional<FolderIdentity> ReadIdentity(const Descriptor& opened);

// Whether both identify the same folder. The file system's id is compared only when one has no birth time, because the
// id may depend on the device number.
bool IsSameFolder(const FolderIdentity& one, const FolderIdentity& other);
// The same for two strings; false when one of them is not an identity.
bool IsSameFolder(std::string_view one, std::string_view other);

// Identities, as strings, by folder. A root ends in a slash ("/srv/images/") and may be a symbolic link; folders below
// it do not end in a slash ("/srv/images/pool-1") and may not be symbolic links.
using FolderChain = std::map<std::string, std::string, std::less<>>;

// To and from a member of a record. A value that is not an object is an empty chain; an identity that is not a
// string becomes one that no folder has.
Json::Value FolderChainJson(const FolderChain& chain);
FolderChain FolderChainFromJson(const Json::Value& value);

// The folders in the chain of a file, the root first: the longest of `roots` that contains the file. None for a path
// that is not a valid file path (NormalPath), or is outside the roots.
std::vector<std::string> FolderChainPaths(const std::vector<std::string>& roots, std::string_view path);
// The entries of `known` that belong to the chain of the file.
FolderChain SubChain(const FolderChain& known, const std::vector<std::string>& roots, std::string_view path);

// What exists of the folders of a file.
struct FolderChainState {
  FolderChain folders;    // as far down as folders exist
  bool has_file = false;  // a regular file, in the last of them
};
// Errors: kInvalid (the path is not a valid file path, or is outside the roots or behind a symbolic link), and
// kInternal with the folder and the system's reason when one cannot be examined.
Result<FolderChainState> ReadFolderChainState(const std::vector<std::string>& roots, const std::string& path);
// Only the folders of ReadFolderChainState.
Result<FolderChain> ReadFolderChain(const std::vector<std::string>& roots, const std::string& path);
// The folders of all files; a file without a chain adds nothing.
Result<FolderChain> ReadFolderChains(const std::vector<std::string>& roots, const std::vector<std::string>& paths);

struct FolderChainCheck {
  enum class Finding {
    kSame,        // all folders exist and are the same; also for an empty chain
    kNotMounted,  // a folder has been replaced or cannot be examined: nothing is known about the files
    kFolderGone,  // one is missing, and the folder that contained it is the same: its files are gone
  };
  Finding finding = Finding::kSame;
  std::vector<std::string> folders;  // the first with this finding; for kFolderGone, all that are gone
  std::string reason;    // a clause about the first: "the folder '…' is not the folder that holds its disks"
  int error_number = 0;  // errno(3) when the first could not be examined
};
// A missing root is kNotMounted, and so is a folder that is missing where automount(8) creates folders. kNotMounted
// takes precedence over kFolderGone.
FolderChainCheck CheckFolderChain(const FolderChain& chain);

}  // namespace vexa::storage
