// Names of system accounts.
#pragma once

#include <sys/types.h>

#include <string>

namespace vexa {

// The account's name, or "#" and its number.
std::string NameOfAccount(uid_t user);

}  // namespace vexa
