// The states of the disks in this host's repositories.
//
//   /dash/vdisk/<id>/state   a VexaCCC::State::vDisk, written by the repository's host alone
//
// A disk in a repository that cannot be used has the repository's state. Otherwise its file decides: "inaccessible"
// when it is missing, "crashed" when it is shorter than its record says; else again the repository's state, or
// "online". Files are checked a few at a time, those of running guests first, so that thousands of disks cost little; a
// file's state is valid until its next check.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "host/base/result.h"
#include "host/store/store.h"

namespace vexa::storage {

// The members of a disk's record that its state depends on.
struct DiskFile {
  std::string id;
  std::string guest_id;
  std::string path;  // "" for a record without one
  bool is_qcow2 = false;
  std::uint64_t size_mib = 0;  // 0: unknown
};

std::string DiskStateKey(const std::string& disk_id);

enum class FileState {
  kFine,
  kMissing,
  kShort,    // its guest would see less than the record says
  kUnknown,  // it cannot be checked now
};

// May wait forever. For a qcow2 image the size in its header counts, otherwise the file's length; a block device is
// always fine.
FileState CheckFile(const DiskFile& disk);

// The state of a disk whose file is in state `file` (not set: not checked yet), in a repository in the state
// `repository`. Not set: unknown so far; `stored` is the disk's current state, "" without one.
std::optional<std::string> DiskStateOf(std::string_view repository, std::optional<FileState> file,
                                       std::string_view stored);

// The state of a disk as readers see it. Its repository's state may have changed since the disk's was written, for
// instance because its host is gone. A disk without a written state has the state of its repository.
std::string VisibleDiskState(std::string_view repository, std::string_view stored);

// What is known about one repository's disks. Threads: one at a time.
class DiskStates {
 public:
  // At most this many files are checked in one pass; if there are that many, most of them belong to running guests.
  static constexpr std::size_t kFilesPerPass = 256;

  // The disks whose files are to be checked now, at most `max_count`: round-robin, separately for the disks of the
  // `running` guests.
  std::vector<DiskFile> Choose(const std::vector<DiskFile>& disks, const std::set<std::string>& running,
                               std::size_t max_count = kFilesPerPass);

  // Records the result of a check. kUnknown changes nothing.
  void RecordCheck(const std::string& disk_id, FileState state);

  // Writes the states that have changed. `repository` is the repository's state. Errors: those of the store.
  Status Write(store::Store& store, const std::vector<DiskFile>& disks, std::string_view repository);

 private:
  Status ReadStored(const store::Store& store, const std::vector<DiskFile>& disks);
  static Result<store::Transaction> Plan(const store::Snapshot& snapshot,
                                         const std::map<std::string, std::string>& new_states);

  std::map<std::string, FileState> files_;     // by disk
  std::map<std::string, std::string> stored_;  // the state of each disk; "" for none
  std::string last_running_;                   // the id of the disk of a running guest that was chosen last
  std::string last_other_;                     // the same for all other disks
};

}  // namespace vexa::storage
