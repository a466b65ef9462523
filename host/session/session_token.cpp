#include "host/session/session_token.h"

#include <fmt/format.h>
#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <sys/random.h>

#include <cerrno>
#include <memory>

namespace vexa::session {
namespace {

constexpr std::string_view kAlphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_";

// The value of a character of kAlphabet, or -1.
int DigitValue(char c) {
  if (c >= 'A' && c <= 'Z') return c - 'A';
  if (c >= 'a' && c <= 'z') return c - 'a' + 26;
  if (c >= '0' && c <= '9') return c - '0' + 52;
  if (c == '-') return 62;
  if (c == '_') return 63;
  return -1;
}

struct ContextFree {
  void operator()(EVP_MD_CTX* context) const { EVP_MD_CTX_free(context); }
};

// Looked up once, because finding an algorithm by name takes longer than hashing a token.
const EVP_MD* Sha256() {
  static const EVP_MD* const algorithm = EVP_MD_fetch(nullptr, "SHA256", nullptr);
  return algorithm;
}

}  // namespace

Result<std::string> NewToken() {
  Hash bytes{};
  std::size_t filled = 0;
  while (filled < bytes.size()) {
    const ssize_t count = ::getrandom(bytes.data() + filled, bytes.size() - filled, 0);
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) return SystemError(ErrorCode::kInternal, "Cannot get random bytes for a token", errno);
    filled += static_cast<std::size_t>(count);
  }
  return EncodeHash(bytes);
}

bool HasTokenForm(std::string_view text) {
  if (text.size() != kTokenCharacters) return false;
  for (const char c : text) {
    if (DigitValue(c) < 0) return false;
  }
  return true;
}

std::optional<Hash> HashToken(std::string_view text) {
  thread_local const std::unique_ptr<EVP_MD_CTX, ContextFree> context(EVP_MD_CTX_new());
  Hash hash;
  if (context == nullptr || Sha256() == nullptr || EVP_DigestInit_ex2(context.get(), Sha256(), nullptr) != 1 ||
      EVP_DigestUpdate(context.get(), text.data(), text.size()) != 1 ||
      EVP_DigestFinal_ex(context.get(), hash.data(), nullptr) != 1) {
    return std::nullopt;
  }
  return hash;
}

std::string SessionId(const Hash& hash) { return fmt::format("{:02x}", fmt::join(hash.begin(), hash.begin() + 8, "")); }

std::string SessionIdOfToken(std::string_view token) {
  const auto hash = HasTokenForm(token) ? HashToken(token) : std::nullopt;
  return hash ? SessionId(*hash) : std::string();
}

bool IsSessionId(std::string_view text) {
  return text.size() == 16 && text.find_first_not_of("0123456789abcdef") == std::string_view::npos;
}

bool EqualInConstantTime(const Hash& a, const Hash& b) { return CRYPTO_memcmp(a.data(), b.data(), a.size()) == 0; }

std::string EncodeHash(const Hash& hash) {
  std::string text;
  text.reserve(kTokenCharacters);
  std::uint32_t bits = 0;
  int count = 0;
  for (const std::uint8_t byte : hash) {
    bits = (bits << 8) | byte;
    count += 8;
    while (count >= 6) {
      count -= 6;
      text += kAlphabet[(bits >> count) & 63];
    }
  }
  // 256 bits are 42 digits of 6 bits, and 4 remaining bits.
  text += kAlphabet[(bits << (6 - count)) & 63];
  return text;
}

std::optional<Hash> DecodeHash(std::string_view text) {
  if (!HasTokenForm(text)) return std::nullopt;
  Hash hash{};
  std::size_t position = 0;
  std::uint32_t bits = 0;
  int count = 0;
  for (const char c : text) {
    bits = (bits << 6) | static_cast<std::uint32_t>(DigitValue(c));
    count += 6;
    if (count < 8) continue;
    count -= 8;
    hash[position++] = static_cast<std::uint8_t>(bits >> count);
  }
  // The remaining bits must be 0, because otherwise several strings would decode to the same hash.
  if ((bits & ((1U << count) - 1)) != 0) return std::nullopt;
  return hash;
}

}  // namespace vexa::session
