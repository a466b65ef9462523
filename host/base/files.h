// Small files that must never be seen half-written.
#pragma once

#include <sys/types.h>

#include <string>
#include <string_view>

#include "host/base/result.h"

namespace vexa {

// Returns the whole file. kNotFound when it does not exist, kInvalid when it is larger than `max_bytes` or not a
// regular file. All functions here report a path that contains a NUL as kInvalid.
Result<std::string> ReadFile(const std::string& path, std::size_t max_bytes);

// Appends the open file `fd`, from its current position, to `content`. `path` is for messages. kInvalid when `content`
// becomes larger than `max_bytes`.
Status ReadRest(int fd, const std::string& path, std::size_t max_bytes, std::string& content);

// Replaces the file at `path` atomically and durably: a temporary file in the same folder is written, synced and
// renamed over it, then the folder is synced. On failure the old file is unchanged and no temporary file is left
// behind, with one exception: when syncing the folder fails, the new file is in place but may be lost in a power
// failure. The temporary file has no name until it is complete, so a process that is killed leaves none either, except
// on file systems without unnamed files and at the very moment of renaming. `mode` is the new file's mode, regardless
// of the umask. A symbolic link at `path` is replaced, not followed.
Status WriteFileAtomically(const std::string& path, std::string_view content, mode_t mode);

// Creates `path` and its missing parents, durably, with `mode` less the umask. An existing folder is not an error.
// kConflict when a component exists and is not a folder.
Status CreateDirectories(const std::string& path, mode_t mode);

// Makes the names in the folder durable, and its own name, whether this process made them or another one. A parent that
// this process may not read is left out.
Status SyncFolderAndParent(const std::string& path);

}  // namespace vexa
