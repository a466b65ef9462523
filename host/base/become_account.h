// Running as another account of the machine.
#pragma once

#include <string>

#include "host/base/result.h"

namespace vexa {

// Makes this process run as `account`, with its groups, for good. Nothing happens when it does already. Call it while
// the process has one thread. Errors: kNotFound (there is no such account), kDenied (only root can).
Status BecomeAccount(const std::string& account);

}  // namespace vexa
