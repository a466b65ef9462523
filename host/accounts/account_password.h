// Password hashes of accounts: yescrypt, by crypt(3).
#pragma once

#include <cstddef>
#include <string>

#include "host/base/result.h"

namespace vexa::base {

inline constexpr std::size_t kMinPasswordBytes = 8;
inline constexpr std::size_t kMaxPasswordBytes = 512;

// kInvalid, with a sentence for the user, unless `password` is 8 to 512 bytes of UTF-8 without NUL.
Status CheckNewPassword(const std::string& password);

// Returns a "$y$…" hash with a new salt. kInternal when the system cannot make one.
// Threads: any. HashPassword and CheckPassword together compute at most two hashes per processor concurrently; other
// callers wait.
Result<std::string> HashPassword(const std::string& password);

// Whether an account may have this stored hash: "" and "!…" (no login), or a yescrypt hash.
bool IsStoredHashValid(const std::string& stored);
bool IsLoginDisabled(const std::string& stored);

enum class PasswordCheck { kMatches, kDiffers, kCannotTell };

// Compares in constant time. When `stored` disables login or is nullptr (no such user), the password is hashed all the
// same and never matches. kCannotTell when the system cannot compute a hash now.
PasswordCheck CheckPassword(const std::string* stored, const std::string& password);

}  // namespace vexa::base
