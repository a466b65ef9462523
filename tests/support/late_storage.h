// Storage that comes and goes below a host that runs, as a disk that is mounted late does.
#pragma once

#include <sys/types.h>

#include <string>

namespace vexa::test {

// A namespace of mounts for the test program and all that it starts. Make it first of all: before the process gives up
// its rights, and before there are threads.
class LateStorage {
 public:
  // One for the process: what is mounted stays with it. Why there can be none: a sentence. Empty: there can be.
  static std::string Enter();

  // Empty storage that belongs to the user of a QemuGround. It is not mounted yet.
  static LateStorage& Get();

  // At a folder that is there. Nobody may use the storage when it goes. False: the kernel refuses.
  bool Mount(const std::string& folder);
  bool Unmount(const std::string& folder);

 private:
  bool Order(char what, const std::string& folder) const;

  int orders_ = -1;  // a process that kept the rights
  int answers_ = -1;
};

}  // namespace vexa::test
