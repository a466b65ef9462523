#include "host/transport/origin.h"

#include <algorithm>
#include <charconv>

#include "host/base/json_parse.h"

namespace vexa::transport {
namespace {

thread_local Origin current;

constexpr std::string_view kHexDigits = "0123456789ABCDEF";

bool IsName(std::string_view text) {
  const auto is_control = [](char c) { return static_cast<unsigned char>(c) < 0x20 || c == 0x7F; };
  return !text.empty() && text.size() <= kMaxActingUserBytes && IsValidUtf8(text) &&
         std::ranges::none_of(text, is_control);
}

std::string Encoded(std::string_view name) {
  std::string text;
  for (const char c : name) {
    if (c > ' ' && c <= '~' && c != '%') {
      text += c;
      continue;
    }
    const auto byte = static_cast<unsigned char>(c);
    text += '%';
    text += kHexDigits[byte >> 4];
    text += kHexDigits[byte & 0xF];
  }
  return text;
}

}  // namespace

Origin CurrentOrigin() { return current; }

void SetOrigin(Origin origin) { current = origin; }

bool IsRequestId(std::string_view text) {
  constexpr std::size_t kDigits = 16;
  return text.size() == kDigits &&
         std::ranges::all_of(text, [](char c) { return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f'); });
}

std::vector<std::string> OriginHeaders(const Origin& origin) {
  std::vector<std::string> fields;
  const auto add = [&fields](std::string_view name, std::string_view value) {
    fields.emplace_back(name).append(": ").append(value);
  };
  if (IsName(origin.user)) add(kActsForField, Encoded(origin.user));
  if (IsRequestId(origin.request_id)) add(kRequestIdField, origin.request_id);
  return fields;
}

std::string ActingUserOf(std::string_view value) {
  std::string name;
  for (std::size_t i = 0; i < value.size(); ++i) {
    if (value[i] != '%') {
      name += value[i];
      continue;
    }
    unsigned byte = 0;
    const std::string_view digits = value.substr(i + 1, 2);
    const char* const end = digits.data() + digits.size();
    const auto [stop, error] = std::from_chars(digits.data(), end, byte, 16);
    if (digits.size() != 2 || error != std::errc() || stop != end) return {};
    name += static_cast<char>(byte);
    i += 2;
  }
  return IsName(name) ? name : std::string();
}

}  // namespace vexa::transport
