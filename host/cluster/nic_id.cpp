#include "host/cluster/nic_id.h"

#include <openssl/evp.h>

#include <array>
#include <string_view>

namespace vexa::cluster {

std::string HexText(const unsigned char* bytes, std::size_t size) {
  constexpr std::string_view kDigits = "0123456789abcdef";
  std::string text;
  for (std::size_t i = 0; i < size; ++i) {
    text += kDigits[bytes[i] >> 4];
    text += kDigits[bytes[i] & 0x0F];
  }
  return text;
}

// Version 5 of RFC 4122, section 4.3; the host's id, in text, is the namespace.
std::string NicId(const std::string& host_id, const std::string& mac_or_name) {
  const std::string input = host_id + "/nic/" + mac_or_name;
  std::array<unsigned char, EVP_MAX_MD_SIZE> hash{};
  unsigned int length = 0;
  EVP_Digest(input.data(), input.size(), hash.data(), &length, EVP_sha1(), nullptr);
  hash[6] = static_cast<unsigned char>((hash[6] & 0x0F) | 0x50);
  hash[8] = static_cast<unsigned char>((hash[8] & 0x3F) | 0x80);
  std::string uuid = HexText(hash.data(), 16);
  for (const std::size_t at : {8U, 13U, 18U, 23U}) uuid.insert(at, 1, '-');
  return uuid;
}

}  // namespace vexa::cluster
