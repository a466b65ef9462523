// Files that hold secrets: they are read only when no one else could have read or written them.
#pragma once

#include <sys/stat.h>

#include <string>

#include "host/base/result.h"

namespace vexa {

// Identifies one state of a file without reading it.
struct FileStamp {
  dev_t device = 0;
  ino_t inode = 0;
  off_t size = 0;
  mode_t mode = 0;
  uid_t owner = 0;
  timespec modified{};
  timespec changed{};

  bool operator==(const FileStamp& other) const;
};

// The state of the file itself: a symbolic link is not followed. kNotFound when it does not exist.
Result<FileStamp> StampOf(const std::string& path);

struct PrivateFile {
  std::string content;
  FileStamp stamp;
  // A change within the granularity of file times could leave the stamp the same. The content is valid, but the stamp
  // alone must not be used later to conclude that it still is.
  bool stamp_may_repeat = false;
};

// Reads a file that only its owner, this process's user or root, may read or write.
// kNotFound: it does not exist. kDenied: permission bits for group or others, another owner, a symbolic link, or the
// system refuses. kInvalid: not a regular file, or larger than `max_bytes`. kBusy: it kept changing while it was read.
Result<PrivateFile> ReadPrivateFile(const std::string& path, std::size_t max_bytes);

}  // namespace vexa
