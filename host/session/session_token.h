// Random tokens, their base64url form, and their hashes.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "host/base/result.h"

namespace vexa::session {

inline constexpr std::size_t kTokenCharacters = 43;  // 32 bytes as base64url without padding

using Hash = std::array<std::uint8_t, 32>;

// A token of 256 random bits from the system, in base64url. Errors: kInternal when the system provides no random bytes.
Result<std::string> NewToken();

// Whether `text` has the length and the characters of a token.
bool HasTokenForm(std::string_view text);

// The SHA-256 of `text`. Not set if libcrypto fails, which happens only when memory is exhausted.
std::optional<Hash> HashToken(std::string_view text);

// The public name of the session whose token has this hash: its first 8 bytes as 16 hexadecimal digits.
std::string SessionId(const Hash& hash);

// The same for a token; "" for text that is not a token.
std::string SessionIdOfToken(std::string_view token);
bool IsSessionId(std::string_view text);

bool EqualInConstantTime(const Hash& a, const Hash& b);

// base64url without padding (RFC 4648, section 5). DecodeHash accepts exactly the strings that EncodeHash returns; not
// set for others.
std::string EncodeHash(const Hash& hash);
std::optional<Hash> DecodeHash(std::string_view text);

}  // namespace vexa::session
