// Small files that must never be seen half-written.
#pragma once

#include <sys/types.h>

#include <string>
#include <string_view>

#include "host/base/result.h"

namespace vexa {

// The whole file. kNotFound when there is none, kInvalid when it is larger than `max_bytes` or no regular file.
// In all three functions, a path that contains a NUL is kInvalid.
Result<std::string> ReadFile(const std::string& path, std::size_t max_bytes);

// Replaces the file at `path` atomically and durably: a temporary file in the same folder is written, synced, renamed
// over it, and the folder is synced. A failure leaves the old file as it was and no temporary file behind, with one
// exception: when syncing the folder fails, the new file is in place and may be lost with the power.
// `mode` is the new file's mode, whatever the umask. A symbolic link at `path` is replaced, not followed.
Status WriteFileAtomically(const std::string& path, std::string_view content, mode_t mode);

// Creates `path` and its missing parents with `mode` less the umask. Not an error: it exists already.
// kConflict when a part of it exists and is not a folder.
Status CreateDirectories(const std::string& path, mode_t mode);

}  // namespace vexa
