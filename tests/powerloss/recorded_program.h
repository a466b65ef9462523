// A program whose changes of files are recorded while it runs, and folders that look as the disk would after a power
// cut.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "tests/powerloss/disk_model.h"
#include "tests/support/process.h"

namespace vexa::powerloss {

// The sectors of the file that are not zeros, by their position. A last one that is not complete ends with zeros.
std::map<std::uint64_t, std::string> SectorsOf(const std::string& path);

class RecordedProgram {
 public:
  // What happens below `folder` is recorded in the file `recording`, which must not exist yet.
  RecordedProgram(const std::string& folder, std::string recording, test::ProcessOptions program);

  test::Process& process() { return process_; }
  // How much has been recorded, to be given to ReplyBefore().
  std::uint64_t position() const;

  // Read these after the program has ended.
  std::vector<Call> Calls() const;
  // How many calls had ended before the last reply that was recorded up to `position`, which is that of the request
  // that had been answered at this moment.
  std::size_t ReplyBefore(std::uint64_t position) const;

 private:
  const std::string recording_;
  test::Process process_;
};

// The folder that was recorded. Files keep their identities (inode numbers and times of birth) as on a real disk.
class DiskFolder {
 public:
  // `spare`: a folder for files that the folder does not have at the moment, on the same file system.
  DiskFolder(std::string folder, std::string spare);

  // Whether the folder contains exactly what the recording says: a sentence about the first difference, or nothing.
  // This proves that nothing was missed. To be called before Put.
  std::string FindDifference(const DiskModel& model);

  // Changes the folder into `disk`. Files that were mapped get random contents, for as long as nothing runs on them.
  void Put(const Disk& disk, std::mt19937& random);

 private:
  std::string Compare(const Disk& disk, std::uint32_t number, const std::string& path);
  void Clear(const std::string& path);
  void Fill(const Disk& disk, std::uint32_t number, const std::string& path, std::mt19937& random);
  void Place(const Disk& disk, std::uint32_t number, const std::string& path, std::mt19937& random);
  std::string SparePath(std::uint32_t number) const { return spare_ + "/" + std::to_string(number); }

  const std::string folder_;
  const std::string spare_;
  std::map<ino_t, std::uint32_t> numbers_;      // of the files that exist, in the folder or spare
  std::map<std::uint32_t, std::string> paths_;  // where the files of the disk are that is being put
};

}  // namespace vexa::powerloss
