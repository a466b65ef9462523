// The states of the disks of this host's repositories.
//
//   /dash/vdisk/<id>/state   a text of VexaCCC::State::vDisk, written by the repository's host alone
//
// A disk of a repository that cannot be used is in the repository's state. Otherwise its file decides: "inaccessible"
// when it is missing, "crashed" when it is shorter than its record says; else the repository's state again, and
// "online". Files are looked at a few at a time, those of guests that run first, so that thousands of disks cost
// little; a file's state holds until the next look at it.
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

namespace vexa::guests {

// A disk as its record has it.
struct DiskFile {
  std::string id;
  std::string guest_id;
  std::string path;  // "" for a record without one
  bool is_qcow2 = false;
  std::uint64_t size_mib = 0;  // 0: not known
};

std::string DiskStateKey(const std::string& disk_id);

enum class FileState {
  kFine,
  kMissing,
  kShort,    // its guest would see less than the record says
  kUnknown,  // it cannot be looked at now
};

// May wait for ever. Of a qcow2 image the size in its header counts, else the file's length; a block device is fine.
FileState LookAtFile(const DiskFile& disk);

// The state of a disk whose file is in `file` (not set: it was not looked at yet), in a repository in the state
// `repository`. Not set: that cannot be known yet; `stored` is the state that the disk has now, "" without one.
std::optional<std::string> DiskStateOf(std::string_view repository, std::optional<FileState> file,
                                       std::string_view stored);

// The state of a disk as readers see it. Its repository may have got another state since the disk's was written, for
// one when its host is gone. A disk of which nothing was ever written is as its repository is.
std::string ShownDiskState(std::string_view repository, std::string_view stored);

// What is known of one repository's disks. Threads: one at a time.
class DiskStates {
 public:
  // At most this many files are looked at in a pass, and most of them are of guests that run when there are so many.
  static constexpr std::size_t kFilesPerPass = 256;

  // The disks whose files are to be looked at now, at most `most`: they go round, those of `running` guests on their
  // own.
  std::vector<DiskFile> Choose(const std::vector<DiskFile>& disks, const std::set<std::string>& running,
                               std::size_t most = kFilesPerPass);

  // What a look has found. kUnknown changes nothing.
  void Take(const std::string& disk_id, FileState state);

  // Writes the states that have changed. `repository` is the repository's state. Errors: what the store says.
  Status Write(store::Store& store, const std::vector<DiskFile>& disks, std::string_view repository);

 private:
  Status ReadStored(const store::Store& store, const std::vector<DiskFile>& disks);
  static Result<store::Transaction> Plan(const store::Store& store, const std::map<std::string, std::string>& part);

  std::map<std::string, FileState> files_;     // by disk
  std::map<std::string, std::string> stored_;  // the state of each disk; "" for none
  std::string last_running_;                   // the disks that were chosen last
  std::string last_other_;
};

}  // namespace vexa::guests
