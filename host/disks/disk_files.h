// Accesses the files behind the paths in disks' records without trusting those paths.
//
// A path leads to a file only when it is strictly below one of the roots, and neither the file nor any folder below the
// root is a symbolic link. Every change is made inside the folder opened in this way, and never while a VM process has
// the file open.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "host/base/result.h"
#include "host/base/rooted_file.h"
#include "host/disks/disk_locks.h"

namespace vexa::disks {

// The system calls that change a folder; tests replace them. Each returns 0 or an errno(3) value.
int RenameInFolder(int folder, const char* from, const char* to);  // EEXIST when `to` exists
int UnlinkInFolder(int folder, const char* name);
int SyncFolder(int folder);
// The same for calls that change a file.
int CreateInFolder(int folder, const char* name, int* file);  // mode 0600; EEXIST when it exists
int SetFileLength(int file, std::uint64_t length);
int WriteToFile(int file, std::string_view bytes, std::uint64_t offset);  // all of them
int SyncFile(int file);

struct FileSystemCalls {
  std::function<int(int folder, const char* from, const char* to)> rename = RenameInFolder;
  std::function<int(int folder, const char* name)> unlink = UnlinkInFolder;
  std::function<int(int folder)> sync = SyncFolder;
  std::function<int(int folder, const char* name, int* file)> create = CreateInFolder;
  std::function<int(int file, std::uint64_t length)> set_length = SetFileLength;
  std::function<int(int file, std::string_view bytes, std::uint64_t offset)> write = WriteToFile;
  std::function<int(int file)> sync_file = SyncFile;
  // Whether a VM process has the file open, see disk_locks.h.
  std::function<int(int folder, const char* name, bool* is_open_in_vm)> is_open_in_vm = IsOpenInVm;
  // Called before each access to the file system, so that tests can check that no lock or snapshot is held then. May be
  // empty.
  std::function<void()> before_lookup;
  ResolvePath resolve = ResolvePath::kBySystem;
};

// Bytes at an offset of a file.
struct FilePiece {
  std::uint64_t offset = 0;
  std::string bytes;
};

// Identifies a file whatever its name.
struct FileIdentity {
  dev_t device = 0;
  ino_t inode = 0;
  bool operator==(const FileIdentity&) const = default;
};

// `path` without empty segments and ".". Not set for an invalid file path: not absolute, "..", NUL, a slash at the end,
// longer than the system allows.
std::optional<std::string> NormalPath(std::string_view path);

// The absolute ones of `roots`, normal and without a slash at the end ("" for "/"), longest first.
std::vector<std::string> NormalRoots(const std::vector<std::string>& roots);
// The root that a normal path is strictly below; null if the path is outside all roots. `roots` comes from
// NormalRoots().
const std::string* FindRoot(const std::vector<std::string>& roots, std::string_view path);

// Threads: any, at the same time.
class DiskFiles {
 public:
  DiskFiles(const std::vector<std::string>& roots, FileSystemCalls calls);

  // kUntouchable: the path leads to something other than a regular file below a root.
  enum class Kind { kRegular, kMissing, kUntouchable };
  struct FileInfo {
    Kind kind = Kind::kMissing;
    FileIdentity identity;  // of a regular file
    std::string reason;     // for kUntouchable, as a clause: "it is a symbolic link"
  };
  // Errors: when the result is unknown, with the path and the system's reason.
  Result<FileInfo> Examine(const std::string& path) const;

  // `path` comes from NormalPath(). Only regular files are renamed and removed. Errors, for all except Sync: kNotFound
  // (no such file or folder), kInvalid (the file must not be touched, see FileInfo::reason), and those of the system,
  // with the path; for Hide, Remove, RemoveHidden, SetLength and WriteAt also kBusy (a VM process has the file open).
  // Renames the file to `hidden` in its folder; kConflict when that name exists.
  Status Hide(const std::string& path, const std::string& hidden) const;
  // Undoes Hide; kConflict when a file of that name exists.
  Status Unhide(const std::string& path, const std::string& hidden) const;
  Status Remove(const std::string& path) const;
  Status RemoveHidden(const std::string& path, const std::string& hidden) const;
  // Creates a file that only its owner can read, `length` bytes long, sparse except for `pieces`, synced to disk.
  // kConflict when it exists. After other errors the file is removed again, as far as possible.
  Status Create(const std::string& path, std::uint64_t length, const std::vector<FilePiece>& pieces) const;
  Result<std::uint64_t> Length(const std::string& path) const;
  // Returns fewer bytes when the file ends before `offset` + `count`.
  Result<std::string> ReadAt(const std::string& path, std::uint64_t offset, std::size_t count) const;
  // Both sync the file.
  Status SetLength(const std::string& path, std::uint64_t length) const;
  Status WriteAt(const std::string& path, const FilePiece& piece) const;
  // Syncs the folder of `path`, which makes renames and removals in it durable. A missing folder is not an error.
  Status Sync(const std::string& path) const;

 private:
  struct OpenedFolder;
  // Opens the folder of the file below its root. Errors: those of a lookup, see above.
  Result<OpenedFolder> Open(const std::string& path) const;
  enum class LockCheck { kNeeded, kNotNeeded };
  Status CheckNotOpenInVm(const OpenedFolder& opened, const std::string& path, const std::string& name) const;
  Status Rename(const std::string& path, const std::string& from, const std::string& to, LockCheck lock_check) const;
  Status Unlink(const std::string& path, const std::string& name) const;
  // Opens the file, which must be a regular one, and calls `act` with it.
  Status WithFile(const std::string& path, int access, LockCheck lock_check,
                  const std::function<Status(int file)>& act) const;

  const std::vector<std::string> roots_;  // see NormalRoots
  const FileSystemCalls calls_;
};

}  // namespace vexa::disks
