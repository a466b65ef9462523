#include "host/base/origin.h"

#include <algorithm>
#include <charconv>
#include <cstdint>

namespace vexa {
namespace {

bool IsPort(std::string_view text) {
  std::uint16_t port = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), port);
  return error == std::errc() && end == text.data() + text.size() && port != 0 && text.front() != '0';
}

bool IsHostName(std::string_view text) {
  const auto is_allowed = [](char c) {
    return (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '-' || c == '.';
  };
  return !text.empty() && std::ranges::all_of(text, is_allowed);
}

// An IPv6 address in brackets.
bool IsBracketed(std::string_view text) {
  const auto is_allowed = [](char c) { return (c >= 'a' && c <= 'f') || (c >= '0' && c <= '9') || c == ':'; };
  return text.size() > 4 && text.front() == '[' && text.back() == ']' &&
         std::ranges::all_of(text.substr(1, text.size() - 2), is_allowed);
}

}  // namespace

bool IsOrigin(std::string_view text) {
  constexpr std::string_view kSecure = "https://";
  constexpr std::string_view kPlain = "http://";
  if (text.starts_with(kSecure)) {
    text.remove_prefix(kSecure.size());
  } else if (text.starts_with(kPlain)) {
    text.remove_prefix(kPlain.size());
  } else {
    return false;
  }
  const std::size_t bracket = text.rfind(']');
  const std::size_t colon = text.find(':', bracket == std::string_view::npos ? 0 : bracket);
  if (colon != std::string_view::npos && (colon + 1 == text.size() || !IsPort(text.substr(colon + 1)))) return false;
  const std::string_view host = text.substr(0, colon);
  return IsHostName(host) || IsBracketed(host);
}

}  // namespace vexa
