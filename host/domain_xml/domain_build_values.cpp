// Reads members of records and writes XML elements.
#include <cmath>

#include "host/base/json_parse.h"
#include "host/domain_xml/domain_build_internal.h"
#include "json/readers.h"

namespace vexa::domain_xml::build {
namespace {

// The length of the character at the start of `text`, which is not empty; 0 when it does not start with a valid one.
std::size_t CharacterLength(std::string_view text) {
  for (std::size_t length = 1; length <= 4 && length <= text.size(); ++length) {
    if (IsValidUtf8(text.substr(0, length))) return length;
  }
  return 0;
}

bool IsAllowed(std::string_view character) {
  const auto first = static_cast<unsigned char>(character[0]);
  if (character.size() == 1) return first >= 0x20 || first == '\t' || first == '\n';
  return character != "\xEF\xBF\xBE" && character != "\xEF\xBF\xBF";  // U+FFFE and U+FFFF
}

constexpr Json::ArrayIndex kMaxIsoImages = 2;

}  // namespace

std::string XmlText(std::string_view text) {
  std::string result;
  while (!text.empty()) {
    const std::size_t length = CharacterLength(text);
    const bool allowed = length > 0 && IsAllowed(text.substr(0, length));
    if (allowed) {
      result += text.substr(0, length);
    } else {
      result += '?';
    }
    text.remove_prefix(length > 0 ? length : 1);
  }
  return result;
}

Result<std::int64_t> NumberOf(const Json::Value& record, const char* member, std::int64_t fallback, std::int64_t min,
                              std::int64_t max) {
  const Json::Value& value = json::Member(record, member);
  if (value.isNull()) return fallback;
  // isInt64 comes first: the conversion of a larger number returns 0, which may be in range.
  if (!value.isInt64() || json::Int64(value) < min || json::Int64(value) > max) {
    return Invalid("The member '{}' of a record is not a number from {} to {}", member, min, max);
  }
  return json::Int64(value);
}

Result<std::int64_t> NumberOf(const Json::Value& record, const GuestSetting& setting, std::int64_t fallback) {
  return NumberOf(record, setting.name, fallback, setting.min, setting.max);
}

Result<std::string> StringOf(const Json::Value& record, const char* member, const std::string& fallback) {
  const Json::Value& value = json::Member(record, member);
  if (value.isNull()) return fallback;
  if (!value.isString()) return Invalid("The member '{}' of a record is not a string", member);
  return json::String(value);
}

Result<std::string> NvramOf(const Json::Value& guest) {
  if (json::Member(guest, "nvram").isNull()) return std::string();
  const Result<std::string> path = StringOf(guest, "nvram", "");
  if (!path) return path.error();
  if (!parse::IsPlainPath(*path) || XmlText(*path) != *path) {
    return Invalid("The member 'nvram' of the guest is {}: use an absolute path without '..' and control characters",
                   Quote(*path));
  }
  return *path;
}

Result<std::string> BootSourceOf(const Json::Value& guest) {
  const Result<std::string> source = StringOf(guest, "boot_from", "disk");
  if (source && *source != "disk" && *source != "iso") {
    return Invalid("The member 'boot_from' of the guest is {}. Use 'disk' or 'iso'", Quote(*source));
  }
  return source;
}

Result<Json::Value> IsoImagesOf(const Json::Value& guest) {
  const Json::Value& images = json::Member(guest, "iso_images");
  if (!images.isNull() && (!images.isArray() || images.size() > kMaxIsoImages)) {
    return Invalid("The member 'iso_images' of the guest is not a list of at most two images");
  }
  return json::Elements(images);
}

bool FlagOf(const Json::Value& record, const char* member) { return json::Bool(json::Member(record, member)); }

pugi::xml_node Add(pugi::xml_node parent, const char* name) { return parent.append_child(name); }

pugi::xml_node AddText(pugi::xml_node parent, const char* name, const std::string& text) {
  pugi::xml_node element = Add(parent, name);
  element.append_child(pugi::node_pcdata).set_value(XmlText(text).c_str());
  return element;
}

void Set(pugi::xml_node element, const char* attribute, const std::string& value) {
  element.append_attribute(attribute).set_value(XmlText(value).c_str());
}

void WriteOwnershipTag(pugi::xml_node domain, const std::string& host_id, Persistence persistence) {
  pugi::xml_node metadata = domain.child("metadata");
  if (!metadata) metadata = Add(domain, "metadata");
  pugi::xml_node tag = Add(metadata, "vexa:guest");
  Set(tag, "xmlns:vexa", kOwnershipTagNamespace);
  Set(tag, "host", host_id);
  if (persistence == Persistence::kYes) Set(tag, "kept", "yes");
}

}  // namespace vexa::domain_xml::build
