// Random tokens, their text, and their hashes.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "host/base/result.h"

namespace vexa::daemon {

inline constexpr std::size_t kTokenCharacters = 43;  // 32 bytes as base64url without padding

using Hash = std::array<std::uint8_t, 32>;

// 256 bits from the system's generator, as text.
Result<std::string> NewToken();

// Whether `text` has the shape of a token.
bool IsTokenShaped(std::string_view text);

// SHA-256. Empty only when libcrypto fails, which means out of memory.
std::optional<Hash> HashOf(std::string_view text);

bool EqualInConstantTime(const Hash& a, const Hash& b);

// base64url without padding (RFC 4648, section 5). Decoding accepts only what encoding produces.
std::string EncodeHash(const Hash& hash);
std::optional<Hash> DecodeHash(std::string_view text);

}  // namespace vexa::daemon
