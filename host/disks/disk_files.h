// The files behind the paths in disks' records, reached without trust in those paths.
//
// A path leads to a file only when it lies strictly below one of the roots, and no folder below the root, nor the file,
// is a symbolic link. Whatever is changed is changed inside the folder that was opened in this way, and never while a
// machine has the file open.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "host/base/result.h"
#include "host/disks/disk_locks.h"

namespace vexa::guests {

// The system's calls that change a folder; tests put others in their place. Each answers 0 or an errno(3) value.
int RenameInFolder(int folder, const char* from, const char* to);  // EEXIST when there is a `to`
int UnlinkInFolder(int folder, const char* name);
int SyncFolder(int folder);
// The same for those that change a file.
int CreateInFolder(int folder, const char* name, int* file);  // mode 0600; EEXIST when there is one
int SetFileLength(int file, std::uint64_t length);
int WriteToFile(int file, std::string_view bytes, std::uint64_t offset);  // all of them
int SyncFile(int file);

struct FileCalls {
  std::function<int(int folder, const char* from, const char* to)> rename = RenameInFolder;
  std::function<int(int folder, const char* name)> unlink = UnlinkInFolder;
  std::function<int(int folder)> sync = SyncFolder;
  std::function<int(int folder, const char* name, int* file)> create = CreateInFolder;
  std::function<int(int file, std::uint64_t length)> set_length = SetFileLength;
  std::function<int(int file, std::string_view bytes, std::uint64_t offset)> write = WriteToFile;
  std::function<int(int file)> sync_file = SyncFile;
  // Whether a machine has the file open, see disk_locks.h.
  std::function<int(int folder, const char* name, bool* has_open)> has_open = MachineHasOpen;
  // Called before each way into the file system; for tests of what is held then. Not set: nothing is called.
  std::function<void()> before_lookup;
  enum class Resolve { kBySystem, kByWalking };  // walking is what a system without openat2(2) does in any case
  Resolve resolve = Resolve::kBySystem;
};

struct FilePiece {
  std::uint64_t offset = 0;
  std::string bytes;
};

// What two names of one file have in common.
struct FileIdentity {
  dev_t device = 0;
  ino_t inode = 0;
  bool operator==(const FileIdentity&) const = default;
};

// `path` without empty segments and ".". Not set for what can be no file's place: no absolute path, "..", NUL, a slash
// at the end, longer than the system takes.
std::optional<std::string> NormalPath(std::string_view path);

// Threads: any, at the same time.
class DiskFiles {
 public:
  DiskFiles(const std::vector<std::string>& roots, FileCalls calls);

  enum class Kind { kRegular, kMissing, kLeft };
  struct Look {
    Kind kind = Kind::kMissing;
    FileIdentity identity;  // of a regular file
    std::string why;        // for kLeft: what it is instead, as the end of a sentence
  };
  // Errors: with the path and the system's reason when it cannot be told.
  Result<Look> Examine(const std::string& path) const;

  // `path` is NormalPath()'s. Only regular files are renamed and removed. Errors, for all but Sync: kNotFound (no such
  // file, or no such folder), kInvalid (it is no file of ours, see Look::why), and what the system says, with the path;
  // for Hide, Remove, RemoveHidden, SetLength and WriteAt also kBusy (a machine has the file open).
  // Gives the file the name `hidden` in its folder; kConflict when there is one of this name.
  Status Hide(const std::string& path, const std::string& hidden) const;
  // Gives it back its name; kConflict when there is a file of that name.
  Status Show(const std::string& path, const std::string& hidden) const;
  Status Remove(const std::string& path) const;
  Status RemoveHidden(const std::string& path, const std::string& hidden) const;
  // A new file that only its owner can read, `length` bytes long, sparse but for `pieces`, on the disk. kConflict when
  // there is one; of what fails otherwise no file is left, as far as it can be removed.
  Status Create(const std::string& path, std::uint64_t length, const std::vector<FilePiece>& pieces) const;
  Result<std::uint64_t> Length(const std::string& path) const;
  // As many of the bytes as there are.
  Result<std::string> ReadAt(const std::string& path, std::uint64_t offset, std::size_t count) const;
  // Both are on the disk when they return.
  Status SetLength(const std::string& path, std::uint64_t length) const;
  Status WriteAt(const std::string& path, const FilePiece& piece) const;
  // Makes what was done in the folder of `path` last. Not an error: there is no such folder.
  Status Sync(const std::string& path) const;

 private:
  struct Place;
  Result<Place> Open(const std::string& path) const;
  enum class Probe { kNeeded, kNotNeeded };
  Status RefuseOpen(const Place& place, const std::string& path, const std::string& name) const;
  Status Rename(const std::string& path, const std::string& from, const std::string& to, Probe probe) const;
  Status Unlink(const std::string& path, const std::string& name) const;
  // Of a regular file.
  Status WithFile(const std::string& path, int access, Probe probe, const std::function<Status(int file)>& act) const;

  std::vector<std::string> roots_;  // normal, "" for the root of the file system, longest first
  const FileCalls calls_;
};

}  // namespace vexa::guests
