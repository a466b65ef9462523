#include "host/guests/jobs/file_intent.h"

#include <algorithm>
#include <utility>

#include "host/disks/disk_files.h"
#include "host/store/key.h"
#include "json/readers.h"
#include "webapi/platform/ccc.h"

namespace vexa::guests {
namespace {

namespace json = VexaVirtualization::json;

constexpr char kPath[] = "path";
constexpr char kHidden[] = "hidden";
constexpr char kFrom[] = "from";
constexpr char kTo[] = "to";
constexpr std::string_view kSuffixQcow2 = ".qcow2";
constexpr std::string_view kSuffixRaw = ".raw";
constexpr std::string_view kDigits = "0123456789abcdef";
constexpr std::size_t kHeaderBytes = 16;  // of an image, as stored for a growth

std::string StringOrEmpty(const Json::Value& value) { return value.isString() ? json::String(value) : std::string(); }

std::string PrefixOf(const std::string& guest_id) {
  return std::string(kHiddenPrefix) + store::EncodeSegment(guest_id) + "-";
}

std::string ToHex(const std::string& bytes) {
  std::string text;
  for (const char byte : bytes) {
    text += kDigits[static_cast<unsigned char>(byte) >> 4];
    text += kDigits[static_cast<unsigned char>(byte) & 0xF];
  }
  return text;
}

// Not set: `text` is not the header of an image in hexadecimal.
std::optional<std::string> FromHex(const std::string& text) {
  if (text.size() != 2 * kHeaderBytes) return std::nullopt;
  std::string bytes;
  for (std::size_t i = 0; i < text.size(); i += 2) {
    const std::size_t high = kDigits.find(text[i]);
    const std::size_t low = kDigits.find(text[i + 1]);
    if (high == std::string_view::npos || low == std::string_view::npos) return std::nullopt;
    bytes.push_back(static_cast<char>(high << 4 | low));
  }
  return bytes;
}

std::optional<std::string> ParsePath(const Json::Value& value) {
  std::optional<std::string> path = disks::NormalPath(StringOrEmpty(value));
  if (!path || *path != StringOrEmpty(value)) return std::nullopt;
  return path;
}

// A file to be removed again must have been created here, according to its name.
std::optional<std::string> ParseMadeFile(const Json::Value& value) {
  std::optional<std::string> path = ParsePath(value);
  if (!path) return std::nullopt;
  const std::string_view name = std::string_view(*path).substr(path->rfind('/') + 1);
  for (const std::string_view suffix : {kSuffixQcow2, kSuffixRaw}) {
    const bool is_made =
        name.ends_with(suffix) && VexaCCC::Utils::isUUID(std::string(name.substr(0, name.size() - suffix.size())));
    if (is_made) return path;
  }
  return std::nullopt;
}

// The name is used in the file system, so it must be one that HiddenName returns for this guest.
std::optional<HiddenFile> ParseHiddenFile(const Json::Value& value, const std::string& prefix) {
  std::optional<std::string> path = ParsePath(json::Member(value, kPath));
  std::string hidden = json::StringMember(value, kHidden);
  if (!path || !hidden.starts_with(prefix)) return std::nullopt;
  const std::string_view index = std::string_view(hidden).substr(prefix.size());
  const bool is_number = !index.empty() && std::ranges::all_of(index, [](char c) { return c >= '0' && c <= '9'; });
  if (!is_number) return std::nullopt;
  return HiddenFile{std::move(*path), std::move(hidden)};
}

std::optional<disks::Growth> ParseGrowth(const Json::Value& value) {
  const std::optional<std::string> path = ParsePath(json::Member(value, kPath));
  const Json::Value& from = json::Member(value, kFrom);
  const Json::Value& to = json::Member(value, kTo);
  if (!path) return std::nullopt;
  if (from.isUInt64() && to.isUInt64()) return disks::Growth{*path, json::UInt64(from), json::UInt64(to), {}, {}};
  std::optional<std::string> from_header = FromHex(StringOrEmpty(from));
  std::optional<std::string> to_header = FromHex(StringOrEmpty(to));
  if (!from_header || !to_header) return std::nullopt;
  return disks::Growth{*path, 0, 0, std::move(*from_header), std::move(*to_header)};
}

Json::Value GrowthJson(const disks::Growth& growth) {
  Json::Value value(Json::objectValue);
  value[kPath] = growth.path;
  if (growth.to_header.empty()) {
    value[kFrom] = static_cast<Json::UInt64>(growth.from_length);
    value[kTo] = static_cast<Json::UInt64>(growth.to_length);
  } else {
    value[kFrom] = ToHex(growth.from_header);
    value[kTo] = ToHex(growth.to_header);
  }
  return value;
}

// Not set: `value` is not a list, or `parse` refuses an element.
template <class Element, class Parse>
std::optional<std::vector<Element>> ParseList(const Json::Value& value, const Parse& parse) {
  if (!value.isArray()) return std::nullopt;
  std::vector<Element> list;
  for (const Json::Value& element : value) {
    std::optional<Element> parsed = parse(element);
    if (!parsed) return std::nullopt;
    list.push_back(std::move(*parsed));
  }
  return list;
}

}  // namespace

std::string HiddenName(const std::string& guest_id, std::size_t index) {
  return PrefixOf(guest_id) + std::to_string(index);
}

std::string ImageName(const std::string& disk_id, domain_xml::ImageFormat format) {
  return disk_id + std::string(format == domain_xml::ImageFormat::kRaw ? kSuffixRaw : kSuffixQcow2);
}

std::vector<std::string> PathsOf(const std::vector<HiddenFile>& files) {
  std::vector<std::string> paths;
  paths.reserve(files.size());
  for (const HiddenFile& file : files) paths.push_back(file.path);
  return paths;
}

std::optional<std::vector<std::string>> ParseMade(const Json::Value& list) {
  return ParseList<std::string>(list, ParseMadeFile);
}

std::optional<std::vector<HiddenFile>> ParseHidden(const Json::Value& list, const std::string& guest_id) {
  const std::string prefix = PrefixOf(guest_id);
  return ParseList<HiddenFile>(list, [&](const Json::Value& value) { return ParseHiddenFile(value, prefix); });
}

std::optional<std::vector<disks::Growth>> ParseGrown(const Json::Value& list) {
  return ParseList<disks::Growth>(list, ParseGrowth);
}

Json::Value MadeJson(const std::vector<std::string>& made) {
  Json::Value list(Json::arrayValue);
  for (const std::string& path : made) list.append(path);
  return list;
}

Json::Value HiddenJson(const std::vector<HiddenFile>& hidden) {
  Json::Value list(Json::arrayValue);
  for (const HiddenFile& file : hidden) {
    Json::Value& element = list.append(Json::Value(Json::objectValue));
    element[kPath] = file.path;
    element[kHidden] = file.hidden;
  }
  return list;
}

Json::Value GrownJson(const std::vector<disks::Growth>& grown) {
  Json::Value list(Json::arrayValue);
  for (const disks::Growth& growth : grown) list.append(GrowthJson(growth));
  return list;
}

}  // namespace vexa::guests
