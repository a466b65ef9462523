// Small files that must never be seen half-written.
#pragma once

#include <sys/types.h>

#include <string>
#include <string_view>

#include "host/base/result.h"

namespace vexa {

// The whole file. kNotFound when there is none, kInvalid when it is larger than `max_bytes` or no regular file.
Result<std::string> ReadFile(const std::string& path, std::size_t max_bytes);

// Replaces the file at `path` atomically and durably: a temporary file in the same folder is written, synced, renamed
// over it, and the folder is synced. A failure leaves the old file as it was and no temporary file behind.
// `mode` is the new file's mode, whatever the umask.
Status WriteFileAtomically(const std::string& path, std::string_view content, mode_t mode);

// Creates `path` and its missing parents with `mode`. Not an error: it exists already.
Status CreateDirectories(const std::string& path, mode_t mode);

}  // namespace vexa
