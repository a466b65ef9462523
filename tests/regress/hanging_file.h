// A file on storage that does not answer.
//
// In every program that has this, open(2) of the program's own code is replaced.
#pragma once

#include <string>

namespace vexa::test {

// While it exists, and until Release, opening a file hangs whose path ends like this. One at a time.
class HangingFile {
 public:
  explicit HangingFile(const std::string& end_of_path);
  ~HangingFile();
  HangingFile(const HangingFile&) = delete;
  HangingFile& operator=(const HangingFile&) = delete;

  void Release();
  // Whether somebody tries to open it within a minute.
  static bool WaitUntilOpened();
};

}  // namespace vexa::test
