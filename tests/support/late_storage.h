// Storage that appears and disappears below a running host, like a disk that is mounted late.
#pragma once

#include <sys/types.h>

#include <string>

namespace vexa::test {

// A mount namespace for the test program and everything that it starts. Create it first: before the process gives up
// its rights, and before there are threads.
class RemovableStorage {
 public:
  // One for the process: mounts stay with it. Returns why it is not possible, as a sentence; empty when it is.
  static std::string Enter();

  // Empty storage that belongs to the user of a QemuEnvironment. It is not mounted yet.
  static RemovableStorage& Get();

  // At an existing folder. When unmounting, no one may be using the storage. False: the kernel refuses.
  bool Mount(const std::string& folder);
  bool Unmount(const std::string& folder);

 private:
  bool Order(char what, const std::string& folder) const;

  int orders_ = -1;  // a process that kept the rights
  int answers_ = -1;
};

}  // namespace vexa::test
