// What a disk may contain after the power was cut, worked out from the calls that a program made.
//
// The model is what POSIX and Linux promise and no more, in the manner of LevelDB's fault injection tests, which drop
// what was not synced:
//  - fsync(2): once it has returned, what the file contained when it was called stays, with its length and mode.
//    fdatasync(2) leaves out the mode. A write to a file opened with O_DSYNC is synced by itself.
//  - fsync(2), "does not necessarily ensure that the entry in the directory containing the file has also reached disk":
//    a name stays once its folder was synced after the call that made, moved or removed it.
//  - Everything else may be lost or kept, independently of each other: each sector of 512 bytes, each change of a
//    length or mode, each change of a name. A disk writes a sector completely or not at all. A part of a file that is
//    within its length but was never written reads as zeros.
//  - rename(2) is atomic: after the cut, the file has its old name or the new one. Its content is not part of that: a
//    file that was renamed before it was synced may be empty (ext4(5), auto_da_alloc, promises more).
//  - A file that is mapped and written through the map may contain anything.
// The order in which a journal would write is one of the cases (kNewest). The others are stricter than any one file
// system, so that nothing depends on the file system that the data are on.
#pragma once

#include <cstdint>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "tests/powerloss/recorded_call.h"

namespace vexa::powerloss {

inline constexpr std::uint64_t kSectorBytes = 512;

// What was not synced at the cut:
enum class Loss {
  kNothing,     // is there, as after kill -9
  kEverything,  // is lost
  kContents,    // names are there; contents, lengths and modes are lost
  kBytes,       // names, lengths and modes are there; contents are lost
  kNames,       // contents are there, names are lost
  kNewest,      // is there up to a random call, and lost from then on
  kTorn,        // is there, but what was in progress is there in part
  kRandom,      // is there or lost at random
};
inline constexpr Loss kAllLosses[] = {Loss::kNothing, Loss::kEverything, Loss::kContents, Loss::kBytes,
                                      Loss::kNames,   Loss::kNewest,     Loss::kTorn,     Loss::kRandom};
std::string ToString(Loss loss);

struct DiskFile {
  bool is_folder = false;
  bool is_mapped = false;  // its content is unknown
  std::uint32_t mode = 0;
  std::map<std::string, std::uint32_t> names;    // of a folder: the numbers of the files in it
  std::uint64_t length = 0;                      // of a file
  std::map<std::uint64_t, std::string> sectors;  // of a file, by their position in it; others are zeros
  bool operator==(const DiskFile&) const = default;
};

// All files that have ever existed, by their numbers. A file that cannot be reached from the folder 0 is gone.
struct Disk {
  std::map<std::uint32_t, DiskFile> files;
  // The content of a file; for tests. Empty when there is no file at the path, which is relative to the folder 0.
  std::string ContentOf(const std::string& path) const;
  bool Has(const std::string& path) const;
};

class DiskModel {
 public:
  explicit DiskModel(std::vector<Call> calls);

  const std::vector<Call>& calls() const { return calls_; }
  std::size_t start() const { return start_; }  // the first call of the recorded program

  // The disk when the power is cut after `cut` calls have ended. Calls that had begun by then may have had an effect.
  Disk After(std::size_t cut, Loss loss, std::mt19937& random) const;

 private:
  std::vector<Call> calls_;
  std::size_t start_ = 0;
  std::map<std::uint32_t, std::vector<std::size_t>> syncs_;  // of each file
};

}  // namespace vexa::powerloss
