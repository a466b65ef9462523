// Files that are named by somebody who is not trusted.
#pragma once

#include <string>
#include <vector>

namespace vexa {

// Walking is what a system without openat2(2) does in any case.
enum class ResolvePath { kBySystem, kByWalking };

// Whether `path` leads to a regular file strictly below one of `roots`, by no symbolic link below that root. A path
// that is not absolute, or has empty, "." or ".." segments or a NUL, leads nowhere. What cannot be told, for lack of
// rights for instance, is a no. Roots are absolute; "/" is one, others may end in a slash. The file is not opened.
bool IsRegularFileBelow(const std::vector<std::string>& roots, const std::string& path,
                        ResolvePath resolve = ResolvePath::kBySystem);

}  // namespace vexa
