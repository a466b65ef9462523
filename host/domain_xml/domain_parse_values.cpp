// The small values inside domain XML: numbers, units, identifiers, addresses.
#include <fmt/format.h>

#include <array>
#include <charconv>

#include "host/base/guest_settings.h"
#include "host/base/rows.h"
#include "host/base/uuid.h"
#include "host/domain_xml/domain_parse_internal.h"

namespace vexa::domain_xml {
namespace {

// The namespace of the UUIDs made here. Changing it would change the ids of everything that was ever imported.
constexpr std::array<unsigned char, 16> kNamespace = {0x5b, 0x0e, 0x3c, 0x6f, 0x91, 0x7d, 0x4a, 0x28,
                                                      0xb6, 0xc4, 0x2f, 0xd0, 0x18, 0xe5, 0x73, 0xaa};

bool IsHexDigit(char c) { return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F'); }

char Lower(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c | 0x20) : c; }

// `text` in lower case when it has a hexadecimal digit wherever `shape` has 'x' and the same characters elsewhere.
std::string MatchShape(std::string_view text, std::string_view shape) {
  if (text.size() != shape.size()) return "";
  std::string result;
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (shape[i] == 'x' ? !IsHexDigit(text[i]) : text[i] != shape[i]) return "";
    result += Lower(text[i]);
  }
  return result;
}

bool ConsistsOf(std::string_view text, std::string_view characters) {
  return text.find_first_not_of(characters) == std::string_view::npos;
}

}  // namespace

std::string NameBasedUuid(std::string_view name) {
  return vexa::NameBasedUuid({reinterpret_cast<const char*>(kNamespace.data()), kNamespace.size()}, name);
}

std::string NetworkGroupId(std::string_view network_name) {
  return NameBasedUuid("network/" + std::string(network_name));
}

namespace parse {

std::string Quote(std::string_view text) {
  constexpr std::size_t kMaxBytes = 80;
  std::string quoted(text.substr(0, kMaxBytes));
  if (text.size() > kMaxBytes) {
    // Never cut within a character: remove its continuation bytes, then its first byte.
    while (!quoted.empty() && (static_cast<unsigned char>(quoted.back()) & 0xC0) == 0x80) quoted.pop_back();
    if (!quoted.empty() && static_cast<unsigned char>(quoted.back()) >= 0xC0) quoted.pop_back();
    quoted += "…";
  }
  for (std::size_t i = 0; i < quoted.size(); ++i) {
    const auto byte = static_cast<unsigned char>(quoted[i]);
    if (byte < 0x20 || byte == 0x7F) quoted[i] = '?';
    const bool c1 = byte == 0xC2 && i + 1 < quoted.size() && static_cast<unsigned char>(quoted[i + 1]) < 0xA0;
    if (c1) quoted.replace(i, 2, "?");
  }
  return "'" + quoted + "'";
}

std::string_view Trim(std::string_view text) {
  constexpr std::string_view kSpace = " \t\r\n";
  const std::size_t first = text.find_first_not_of(kSpace);
  if (first == std::string_view::npos) return {};
  return text.substr(first, text.find_last_not_of(kSpace) - first + 1);
}

std::optional<std::uint64_t> ParseUnsigned(std::string_view text) {
  text = Trim(text);
  if (text.empty() || !ConsistsOf(text, "0123456789")) return std::nullopt;
  std::uint64_t value = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (error != std::errc()) return std::nullopt;
  return value;
}

std::optional<std::uint32_t> ParseHex16(std::string_view text) {
  if (text.starts_with("0x") || text.starts_with("0X")) text.remove_prefix(2);
  if (text.empty() || text.size() > 4) return std::nullopt;
  std::uint32_t value = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value, 16);
  if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
  return value;
}

std::optional<std::uint64_t> BytesPerUnit(std::string_view unit) {
  struct Row {
    std::string_view name;
    std::uint64_t bytes;
  };
  constexpr std::uint64_t kKibi = 1024;
  constexpr Row kUnits[] = {
      {"", kKibi},
      {"b", 1},
      {"bytes", 1},
      {"KB", 1000},
      {"k", kKibi},
      {"KiB", kKibi},
      {"MB", 1000 * 1000},
      {"M", kKibi * kKibi},
      {"MiB", kKibi * kKibi},
      {"GB", 1000 * 1000 * 1000},
      {"G", kKibi * kKibi * kKibi},
      {"GiB", kKibi * kKibi * kKibi},
      {"TB", 1000ull * 1000 * 1000 * 1000},
      {"T", kKibi * kKibi * kKibi * kKibi},
      {"TiB", kKibi * kKibi * kKibi * kKibi},
  };
  const Row* const row = FindRow(kUnits, &Row::name, unit);
  return row != nullptr ? std::optional(row->bytes) : std::nullopt;
}

std::optional<std::uint64_t> MemoryBytes(pugi::xml_node element) {
  const auto number = ParseUnsigned(TextOf(element));
  const auto unit = BytesPerUnit(element.attribute("unit").value());
  std::uint64_t bytes = 0;
  if (!number || !unit || __builtin_mul_overflow(*number, *unit, &bytes)) return std::nullopt;
  return bytes;
}

std::string NvramPath(pugi::xml_node nvram) {
  const std::string_view type = nvram.attribute("type").as_string("file");
  if (type != "file") return "";
  const pugi::xml_node source = nvram.child("source");
  return source ? source.attribute("file").value() : std::string(Trim(TextOf(nvram)));
}

std::string NormalizeMac(std::string_view text) {
  std::string mac = MatchShape(text, "xx:xx:xx:xx:xx:xx");
  // The lowest bit of the first byte marks a group address.
  const bool group = !mac.empty() && std::string_view("13579bdf").find(mac[1]) != std::string_view::npos;
  return group || ConsistsOf(mac, "0:") ? "" : mac;
}

std::string VirtualFunctionOf(pugi::xml_node nic) {
  if (std::string_view(nic.attribute("type").value()) != "hostdev") return "";
  const pugi::xml_node address = nic.child("source").child("address");
  const auto part = [&](const char* name) { return ParseHex16(address.attribute(name).value()).value_or(0); };
  return fmt::format("{:04x}:{:02x}:{:02x}.{:x}", part("domain"), part("bus"), part("slot"), part("function"));
}

bool HasControlCharacters(std::string_view text) {
  for (std::size_t i = 0; i < text.size(); ++i) {
    const auto byte = static_cast<unsigned char>(text[i]);
    if (byte < 0x20 || byte == 0x7F) return true;
    if (byte == 0xC2 && i + 1 < text.size() && static_cast<unsigned char>(text[i + 1]) < 0xA0) return true;
  }
  return false;
}

bool IsPlainPath(std::string_view path) {
  constexpr std::size_t kMaxPathBytes = 4095;
  if (path.empty() || path.size() > kMaxPathBytes || path[0] != '/' || HasControlCharacters(path)) return false;
  return (std::string(path) + "/").find("/../") == std::string::npos;
}

bool IsLayoutName(std::string_view text) { return !text.empty() && IsKeyboardLayout(std::string(text)); }

}  // namespace parse
}  // namespace vexa::domain_xml
