#include "host/base/peer_network.h"

#include <arpa/inet.h>
#include <netinet/in.h>

#include <algorithm>
#include <array>
#include <cstddef>

namespace vexa {
namespace {

constexpr std::size_t kNetworkBytes = 8;
constexpr std::size_t kMappedAddressOffset = 12;  // of the IPv4 address in ::ffff:a.b.c.d

}  // namespace

std::string PeerNetwork(const std::string& address) {
  in6_addr binary{};
  if (address.find('\0') != std::string::npos || ::inet_pton(AF_INET6, address.c_str(), &binary) != 1) return address;
  std::array<char, INET6_ADDRSTRLEN> text{};
  if (IN6_IS_ADDR_V4MAPPED(&binary)) {
    const void* const mapped = binary.s6_addr + kMappedAddressOffset;
    return ::inet_ntop(AF_INET, mapped, text.data(), text.size()) == nullptr ? address : text.data();
  }
  std::fill(binary.s6_addr + kNetworkBytes, binary.s6_addr + sizeof binary.s6_addr, 0);
  if (::inet_ntop(AF_INET6, &binary, text.data(), text.size()) == nullptr) return address;
  return std::string(text.data()) + "/64";
}

}  // namespace vexa
