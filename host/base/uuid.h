// UUIDs (RFC 4122) in their text form.
#pragma once

#include <string>
#include <string_view>

#include "host/base/result.h"

namespace vexa {

// A random UUID (version 4) in lower case. Errors: kInternal when the system provides no random numbers.
Result<std::string> RandomUuid();

// The UUID (version 5, in lower case) of `name` in a namespace. The same arguments yield the same UUID. `name_space` is
// binary, usually the 16 bytes of a UUID.
std::string NameBasedUuid(std::string_view name_space, std::string_view name);

// Whether `text` has 8-4-4-4-12 hexadecimal digits.
bool HasUuidForm(std::string_view text);

// `text` in lower case if it has the form of a UUID and is not all zeros; otherwise "".
std::string NormalizeUuid(std::string_view text);

}  // namespace vexa
