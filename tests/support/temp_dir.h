// A folder of a test's own.
#pragma once

#include <string>
#include <string_view>

namespace vexa::test {

// Creates a new folder (0700) below the system's temporary folder, and removes it with its contents at the end. If the
// running test has failed by then, the folder is kept and its path is printed, so that it can be examined.
class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  const std::string& path() const { return path_; }
  // The path of `name` in the folder.
  std::string File(std::string_view name) const { return path_ + "/" + std::string(name); }

 private:
  std::string path_;
};

}  // namespace vexa::test
