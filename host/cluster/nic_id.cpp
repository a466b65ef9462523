#include "host/cluster/nic_id.h"

#include <string_view>

#include "host/base/uuid.h"

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

std::string NicId(const std::string& host_id, const std::string& mac_or_name) {
  return NameBasedUuid("", host_id + "/nic/" + mac_or_name);
}

}  // namespace vexa::cluster
