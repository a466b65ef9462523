// Files named by a caller that is not trusted.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "host/base/descriptor.h"

namespace vexa {

// Systems without openat2(2) always walk.
enum class ResolvePath { kBySystem, kByWalking };

// Opens `below`, names separated by single slashes, inside the folder `root` ("" is the folder itself) with open(2)'s
// `flags`. Folders on the way need not be readable. A descriptor below 0 leaves the reason in errno, ELOOP or EXDEV
// where a symbolic link is on the way; the last name may be one when `flags` has O_PATH and O_NOFOLLOW.
Descriptor OpenBelow(int root, const std::string& below, int flags, ResolvePath resolve = ResolvePath::kBySystem);

// Whether `path` leads to a regular file strictly below one of `roots`, without a symbolic link below that root. False
// for a path that is not absolute, or has empty, "." or ".." segments or a NUL. Also false when it cannot be
// determined, for lack of rights for instance. Roots are absolute; "/" is allowed, others may end in a slash. The file
// is not opened.
bool IsRegularFileBelow(const std::vector<std::string>& roots, const std::string& path,
                        ResolvePath resolve = ResolvePath::kBySystem);

// The size of that file in bytes; not set when there is no such file.
std::optional<std::uint64_t> SizeOfRegularFileBelow(const std::vector<std::string>& roots, const std::string& path,
                                                    ResolvePath resolve = ResolvePath::kBySystem);

}  // namespace vexa
