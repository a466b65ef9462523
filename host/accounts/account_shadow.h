// What a machine's shadow entries (shadow(5)) show of a password without revealing it: the day of its last change.
#pragma once

#include <string>

#include "host/base/result.h"

namespace vexa::accounts {

// The stamp of a password (accounts::User) that was last changed on this day: "day-" and the number of days since 1970.
std::string StampOfDay(long day);

// The stamp of the user's password in the shadow file. "" where it has none: there is no entry or no file, or this
// process may not read it. kUnavailable when the file cannot be read now.
// Threads: any.
Result<std::string> ReadPasswordStamp(const std::string& shadow_file, const std::string& name);

}  // namespace vexa::accounts
