// Opens files below a root folder by names from an untrusted caller.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "host/base/descriptor.h"

namespace vexa {

// How a path is resolved: by one call of openat2(2), or by opening one folder after the other. Systems without
// openat2(2) always walk; kByWalking is for tests.
enum class ResolvePath { kBySystem, kByWalking };

// Opens `below` inside the folder `root` with open(2)'s `flags`. `below` is a relative path of names separated by
// single slashes; "" is the folder itself. Folders on the path need not be readable. On failure the descriptor is
// negative and errno has the reason: ELOOP or EXDEV if a folder on the path is a symbolic link. The last name may be a
// symbolic link if `flags` has O_PATH and O_NOFOLLOW.
Descriptor OpenBelow(int root, const std::string& below, int flags, ResolvePath resolve = ResolvePath::kBySystem);

// Whether `path` is a regular file strictly below one of `roots`, without a symbolic link below that root. False for a
// path that is not absolute, or has empty, "." or ".." segments or a NUL. Also false if it cannot be determined, for
// example because permissions are missing. Roots are absolute paths; "/" is allowed, others may end in a slash. The
// file is only examined, not opened for reading.
bool IsRegularFileBelow(const std::vector<std::string>& roots, const std::string& path,
                        ResolvePath resolve = ResolvePath::kBySystem);

// The size in bytes of the file for which IsRegularFileBelow is true; otherwise not set.
std::optional<std::uint64_t> SizeOfRegularFileBelow(const std::vector<std::string>& roots, const std::string& path,
                                                    ResolvePath resolve = ResolvePath::kBySystem);

}  // namespace vexa
