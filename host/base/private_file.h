// Files with secrets. They are read only if no other user can read or write them.
#pragma once

#include <sys/stat.h>

#include <string>

#include "host/base/result.h"

namespace vexa {

// The metadata that changes whenever a file changes, to detect a change without reading the file.
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

// The stamp of `path` itself: a symbolic link is not followed. kNotFound when it does not exist.
Result<FileStamp> ReadFileStamp(const std::string& path);

struct PrivateFile {
  std::string content;
  FileStamp stamp;
  // The file changed so recently that another change could leave the stamp the same, because file times are coarse. The
  // content is valid, but an equal stamp later does not prove that it still is.
  bool stamp_may_repeat = false;
};

// Reads a file that only its owner may read or write. The owner must be this process's user or root.
// kNotFound: it does not exist. kDenied: permission bits for group or others, another owner, a symbolic link, or the
// system refuses. kInvalid: not a regular file, or larger than `max_bytes`. kBusy: it kept changing while it was read.
Result<PrivateFile> ReadPrivateFile(const std::string& path, std::size_t max_bytes);

}  // namespace vexa
