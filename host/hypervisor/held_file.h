// A file that the process of a guest has open.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>

namespace vexa::hypervisor {

struct HeldFile {
  std::string path;  // as the system reports it: the current one, with " (deleted)" after that of a removed file
  mode_t mode = 0;
  dev_t device = 0;  // which contains the file
  ino_t inode = 0;
  dev_t block_device = 0;  // of a block device
  std::uint64_t size = 0;
};

}  // namespace vexa::hypervisor
