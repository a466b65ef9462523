// Subnets of IPv4 addresses, such as 192.168.100.0/24.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace vexa {

struct Ipv4Subnet {
  std::uint32_t address = 0;  // the first address, in host byte order
  int prefix = 0;             // 0 to 32

  bool operator==(const Ipv4Subnet&) const = default;
  std::uint32_t Mask() const { return prefix == 0 ? 0 : ~std::uint32_t{0} << (32 - prefix); }
  std::uint32_t Last() const { return address | ~Mask(); }
  std::string ToString() const;
};

// "192.168.100.7".
std::string Ipv4Text(std::uint32_t address);
// Not set unless `text` is four decimal numbers up to 255, without leading zeros.
std::optional<std::uint32_t> ParseIpv4(std::string_view text);

// Not set unless `text` is an address, "/" and a prefix length, and the bits of the address after the prefix are 0.
std::optional<Ipv4Subnet> ParseIpv4Subnet(std::string_view text);
// The subnet that contains the address, according to a mask such as "255.255.255.0". Not set when either is malformed.
std::optional<Ipv4Subnet> SubnetOf(std::string_view address, std::string_view mask);

bool Overlap(const Ipv4Subnet& a, const Ipv4Subnet& b);

// Whether all its addresses are for private networks: 10.0.0.0/8, 172.16.0.0/12, 192.168.0.0/16 (RFC 1918).
bool IsPrivate(const Ipv4Subnet& subnet);

}  // namespace vexa
