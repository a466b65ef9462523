#include "host/base/ipv4_subnet.h"

#include <fmt/format.h>

#include <algorithm>
#include <bit>
#include <charconv>

namespace vexa {
namespace {

// The decimal number, which is at most `max` and has no leading zeros.
std::optional<std::uint32_t> ParseDecimal(std::string_view text, std::uint32_t max) {
  std::uint32_t number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (error != std::errc() || end != text.data() + text.size() || number > max) return std::nullopt;
  if (text.size() > 1 && text.front() == '0') return std::nullopt;
  return number;
}

}  // namespace

std::string Ipv4Text(std::uint32_t address) {
  return fmt::format("{}.{}.{}.{}", address >> 24, address >> 16 & 0xFF, address >> 8 & 0xFF, address & 0xFF);
}

std::string Ipv4Subnet::ToString() const { return fmt::format("{}/{}", Ipv4Text(address), prefix); }

std::optional<std::uint32_t> ParseIpv4(std::string_view text) {
  std::uint32_t address = 0;
  for (int i = 0; i < 4; ++i) {
    const std::size_t end = i < 3 ? text.find('.') : text.size();
    if (end == std::string_view::npos) return std::nullopt;
    const auto octet = ParseDecimal(text.substr(0, end), 255);
    if (!octet) return std::nullopt;
    address = address << 8 | *octet;
    text.remove_prefix(i < 3 ? end + 1 : end);
  }
  return address;
}

std::optional<Ipv4Subnet> ParseIpv4Subnet(std::string_view text) {
  const std::size_t slash = text.find('/');
  if (slash == std::string_view::npos) return std::nullopt;
  const auto address = ParseIpv4(text.substr(0, slash));
  const auto prefix = ParseDecimal(text.substr(slash + 1), 32);
  if (!address || !prefix) return std::nullopt;
  const Ipv4Subnet subnet{*address, static_cast<int>(*prefix)};
  if ((*address & ~subnet.Mask()) != 0) return std::nullopt;
  return subnet;
}

std::optional<Ipv4Subnet> SubnetOf(std::string_view address, std::string_view mask) {
  const auto parsed = ParseIpv4(address);
  const auto bits = ParseIpv4(mask);
  if (!parsed || !bits) return std::nullopt;
  const int prefix = std::countl_one(*bits);
  Ipv4Subnet subnet{0, prefix};
  if (subnet.Mask() != *bits) return std::nullopt;
  subnet.address = *parsed & *bits;
  return subnet;
}

bool Overlap(const Ipv4Subnet& a, const Ipv4Subnet& b) { return a.address <= b.Last() && b.address <= a.Last(); }

bool IsPrivate(const Ipv4Subnet& subnet) {
  static constexpr Ipv4Subnet kRanges[] = {{0x0A000000, 8}, {0xAC100000, 12}, {0xC0A80000, 16}};
  return std::ranges::any_of(kRanges, [&](const Ipv4Subnet& range) {
    return subnet.prefix >= range.prefix && (subnet.address & range.Mask()) == range.address;
  });
}

}  // namespace vexa
