// Failures of file operations, with what helps when rights are missing.
#pragma once

#include <string>

#include "host/base/result.h"

namespace vexa {

// What failed: the use of what is at the path, or a change of its entry in the folder (made, renamed, removed).
enum class AccessTo { kContent, kEntry };

// As SystemError. When this process lacks a right (EACCES, EPERM), the cause also names the folder or file on the way
// to `path` that it may not use, with owner and mode, and for a folder the command that helps.
Error AccessError(ErrorCode code, std::string message, const std::string& path, AccessTo access, int error_number);

}  // namespace vexa
