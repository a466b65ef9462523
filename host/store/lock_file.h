// LMDB's lock file: the slots of readers and the lock for writers, which all processes map into their memory.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>

#include "host/base/descriptor.h"
#include "host/base/result.h"

namespace vexa::store {

// A mapped file without disk blocks needs them when it is written first, and without room the kernel then ends the
// process with SIGBUS. LMDB makes its lock file without blocks, and writes to it for every reader; so this class
// reserves them. Keep the object until LMDB's environment is closed: closing any descriptor of the file drops the locks
// that LMDB has on it.
class LockFile {
 public:
  LockFile() = default;

  // Creates the file (0600) when it is missing. Errors: those of LmdbError.
  static Result<LockFile> Open(const std::string& directory);

  // Reserves the blocks of the file's present size. Call it before and after LMDB opens the file, which may lengthen
  // it. Errors: kNoSpace, and others of LmdbError. A file system that cannot reserve is not an error.
  Status Reserve() const;

  // The process that holds the lock for writers; not set when the lock is free, or its holder is unknown, as that of
  // another user is: the maps of its memory cannot be read.
  std::optional<pid_t> FindWriter() const;

 private:
  std::string path_;
  Descriptor fd_;
};

}  // namespace vexa::store
