#include "host/base/base64.h"

#include <openssl/evp.h>

#include <algorithm>
#include <limits>

namespace vexa {
namespace {

// A multiple of 3 and of 4, far below the limit of libcrypto, which counts with int.
constexpr std::size_t kBlockBytes = std::size_t{12} << 20;

}  // namespace

std::string EncodeBase64(std::string_view bytes) {
  std::string text;
  text.reserve((bytes.size() + 2) / 3 * 4);
  while (!bytes.empty()) {
    const std::string_view block = bytes.substr(0, kBlockBytes);
    std::string encoded((block.size() + 2) / 3 * 4 + 1, '\0');  // libcrypto writes a NUL behind it
    const int size =
        EVP_EncodeBlock(reinterpret_cast<unsigned char*>(encoded.data()),
                        reinterpret_cast<const unsigned char*>(block.data()), static_cast<int>(block.size()));
    text.append(encoded, 0, static_cast<std::size_t>(size));
    bytes.remove_prefix(block.size());
  }
  return text;
}

std::optional<std::string> DecodeBase64(std::string_view text) {
  if (text.size() % 4 != 0) return std::nullopt;
  const std::string_view given = text;
  std::string bytes;
  bytes.reserve(text.size() / 4 * 3);
  while (!text.empty()) {
    const std::string_view block = text.substr(0, kBlockBytes);
    std::string decoded(block.size() / 4 * 3, '\0');
    const int size =
        EVP_DecodeBlock(reinterpret_cast<unsigned char*>(decoded.data()),
                        reinterpret_cast<const unsigned char*>(block.data()), static_cast<int>(block.size()));
    if (size < 0) return std::nullopt;
    bytes.append(decoded, 0, static_cast<std::size_t>(size));
    text.remove_prefix(block.size());
  }
  const std::size_t padding = given.ends_with("==") ? 2 : (given.ends_with("=") ? 1 : 0);
  bytes.erase(bytes.size() - padding);
  // libcrypto also accepts blanks at the ends, and bits that are not used.
  return EncodeBase64(bytes) == given ? std::optional(bytes) : std::nullopt;
}

}  // namespace vexa
