// Random identifiers.
#pragma once

#include <string>

#include "host/base/result.h"

namespace vexa {

// A random UUID (RFC 4122, version 4), lower case. Errors: kInternal when the system gives no random numbers.
Result<std::string> RandomUuid();

}  // namespace vexa
