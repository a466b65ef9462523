#include "host/store/key.h"

#include <algorithm>
#include <array>

namespace vexa::store {
namespace {

constexpr std::string_view kHexDigits = "0123456789ABCDEF";
constexpr std::string_view kEmptySegment = "%";

// Bytes that are not escaped, indexed by byte. A table is fast: every byte of every key is looked up.
constexpr std::array<bool, 256> kIsPlain = [] {
  std::array<bool, 256> plain{};
  for (const char c : std::string_view("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_.~:@+")) {
    plain[static_cast<unsigned char>(c)] = true;
  }
  return plain;
}();

bool IsPlain(char c) { return kIsPlain[static_cast<unsigned char>(c)]; }

void AppendEscaped(std::string& out, char c) {
  const auto byte = static_cast<unsigned char>(c);
  out += '%';
  out += kHexDigits[byte >> 4];
  out += kHexDigits[byte & 0x0F];
}

void AppendSegment(std::string& out, std::string_view segment) {
  if (segment.empty()) out += kEmptySegment;
  const bool only_dots = segment.find_first_not_of('.') == std::string_view::npos;
  if (!only_dots && std::all_of(segment.begin(), segment.end(), IsPlain)) {
    out += segment;
    return;
  }
  for (std::size_t i = 0; i < segment.size(); ++i) {
    if (IsPlain(segment[i]) && !(only_dots && i == 0)) {
      out += segment[i];
    } else {
      AppendEscaped(out, segment[i]);
    }
  }
}

}  // namespace

std::string EncodeSegment(std::string_view segment) {
  std::string out;
  out.reserve(segment.size());
  AppendSegment(out, segment);
  return out;
}

std::optional<std::string> DecodeSegment(std::string_view encoded) {
  if (encoded == kEmptySegment) return std::string();
  std::string out;
  out.reserve(encoded.size());
  for (std::size_t i = 0; i < encoded.size(); ++i) {
    if (encoded[i] != '%') {
      out += encoded[i];
      continue;
    }
    if (encoded.size() - i < 3) return std::nullopt;
    const auto high = kHexDigits.find(encoded[i + 1]);
    const auto low = kHexDigits.find(encoded[i + 2]);
    if (high == std::string_view::npos || low == std::string_view::npos) return std::nullopt;
    out += static_cast<char>(high * 16 + low);
    i += 2;
  }
  // A segment has exactly one encoding: "%41", a bare space and an empty segment are refused here.
  if (EncodeSegment(out) != encoded) return std::nullopt;
  return out;
}

std::string MakeKey(std::initializer_list<std::string_view> segments) {
  constexpr std::size_t kTypicalKeyBytes = 72;
  std::string key;
  key.reserve(kTypicalKeyBytes);
  for (const std::string_view segment : segments) {
    key += '/';
    AppendSegment(key, segment);
  }
  return key;
}

bool IsValidKey(std::string_view key) {
  if (key.empty() || key.size() > kMaxKeyBytes || key.front() != '/') return false;
  while (!key.empty()) {
    key.remove_prefix(1);
    const std::size_t end = std::min(key.find('/'), key.size());
    if (!DecodeSegment(key.substr(0, end))) return false;
    key.remove_prefix(end);
  }
  return true;
}

bool IsAtOrBelow(std::string_view key, std::string_view prefix) {
  return key.starts_with(prefix) && (key.size() == prefix.size() || key[prefix.size()] == '/');
}

}  // namespace vexa::store
