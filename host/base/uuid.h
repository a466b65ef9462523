// UUIDs (RFC 4122), as text.
#pragma once

#include <string>
#include <string_view>

#include "host/base/result.h"

namespace vexa {

// A random UUID (version 4), lower case. Errors: kInternal when the system provides no random numbers.
Result<std::string> RandomUuid();

// The UUID (version 5) of `name` in the name space, lower case. The same inputs give the same UUID. `name_space`:
// bytes, usually the 16 of a UUID.
std::string NameBasedUuid(std::string_view name_space, std::string_view name);

// 8-4-4-4-12 hexadecimal digits.
bool IsUuidForm(std::string_view text);

// `text` in lower case when it has that form and is not all zeros; otherwise empty.
std::string NormalizeUuid(std::string_view text);

}  // namespace vexa
