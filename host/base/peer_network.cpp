#include "host/base/peer_network.h"

#include <arpa/inet.h>
#include <netinet/in.h>

#include <algorithm>
#include <cstdint>
#include <iterator>

namespace vexa {

std::string PeerNetwork(const std::string& address) {
  const std::size_t percent = std::min(address.find('%'), address.size());
  const std::string zone = address.substr(percent);
  in6_addr binary{};
  const bool is_text = address.find('\0') == std::string::npos;
  if (!is_text || ::inet_pton(AF_INET6, address.substr(0, percent).c_str(), &binary) != 1) return address;
  char text[INET6_ADDRSTRLEN] = {};
  if (IN6_IS_ADDR_V4MAPPED(&binary)) {
    return ::inet_ntop(AF_INET, binary.s6_addr + 12, text, sizeof(text)) == nullptr ? address : text;
  }
  std::fill(std::begin(binary.s6_addr) + 8, std::end(binary.s6_addr), std::uint8_t{0});
  if (::inet_ntop(AF_INET6, &binary, text, sizeof(text)) == nullptr) return address;
  return std::string(text) + "/64" + zone;
}

}  // namespace vexa
