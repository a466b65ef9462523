// Hashes and checks the passwords of accounts, with yescrypt of crypt(3).
#pragma once

#include <cstddef>
#include <string>

#include "host/base/result.h"

namespace vexa::accounts {

inline constexpr std::size_t kMinPasswordBytes = 8;
inline constexpr std::size_t kMaxPasswordBytes = 512;

// Checks that `password` is 8 to 512 bytes of UTF-8 without NUL; otherwise kInvalid, with a sentence for the user.
Status CheckNewPassword(const std::string& password);

// Returns a "$y$…" hash with a new salt. kInternal when the system cannot compute it.
// Threads: any. HashPassword and CheckPassword together compute at most two hashes per processor at the same time;
// other callers wait.
Result<std::string> HashPassword(const std::string& password);

// Whether an account may store this as its hash: "" or "!…", which disable login, or a yescrypt hash.
bool IsStoredHashValid(const std::string& stored);
bool IsLoginDisabled(const std::string& stored);

// Identifies a stored hash, without revealing it: a UUID. Each hash has a salt of its own, so the stamp is new whenever
// a password is set, even if it is the same password.
std::string StampOfHash(const std::string& stored);

enum class PasswordCheck { kMatches, kMismatch, kUnavailable };

// Compares `password` with the hash `stored` in constant time. If `stored` disables login or is null (no such user),
// the password never matches, but is hashed nevertheless, so that the time does not reveal this. kUnavailable when the
// system cannot compute a hash now.
PasswordCheck CheckPassword(const std::string* stored, const std::string& password);

}  // namespace vexa::accounts
