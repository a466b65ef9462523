// Members of records, and texts in XML.
#include <cmath>

#include "host/base/json_parse.h"
#include "host/domain_xml/domain_build_internal.h"
#include "host/domain_xml/domain_xml_internal.h"
#include "json/readers.h"

namespace vexa::hypervisor::domain_build {
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

Error Wrong(const char* member, const std::string& what) {
  return domain_xml::Refused("The member '" + std::string(member) + "' of a record " + what);
}

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

Result<std::int64_t> NumberOf(const Json::Value& record, const char* member, std::int64_t fallback, std::int64_t least,
                              std::int64_t most) {
  const Json::Value& value = json::Member(record, member);
  if (value.isNull()) return fallback;
  // Beyond 64 bits, a conversion returns 0, which may be in range.
  if (!value.isInt64() || json::Int64(value) < least || json::Int64(value) > most) {
    return Wrong(member, "is not a number from " + std::to_string(least) + " to " + std::to_string(most));
  }
  return json::Int64(value);
}

Result<std::int64_t> NumberOf(const Json::Value& record, const GuestSetting& setting, std::int64_t fallback) {
  return NumberOf(record, setting.name, fallback, setting.min, setting.max);
}

Result<std::string> TextOf(const Json::Value& record, const char* member, const std::string& fallback) {
  const Json::Value& value = json::Member(record, member);
  if (value.isNull()) return fallback;
  if (!value.isString()) return Wrong(member, "is not a text");
  return json::String(value);
}

Result<std::string> NvramOf(const Json::Value& guest) {
  if (json::Member(guest, "nvram").isNull()) return std::string();
  const Result<std::string> path = TextOf(guest, "nvram", "");
  if (!path) return path.error();
  if (!domain_xml::IsPlainPath(*path) || XmlText(*path) != *path) {
    return domain_xml::Refused("The member 'nvram' of the guest is " + domain_xml::Quote(*path) +
                               ": UEFI variables are in a file with an absolute path without '..' and control "
                               "characters");
  }
  return *path;
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

void WriteMark(pugi::xml_node domain, const std::string& host_id, Kept kept) {
  pugi::xml_node metadata = domain.child("metadata");
  if (!metadata) metadata = Add(domain, "metadata");
  pugi::xml_node mark = Add(metadata, "vexa:guest");
  Set(mark, "xmlns:vexa", kMarkNamespace);
  Set(mark, "host", host_id);
  if (kept == Kept::kYes) Set(mark, "kept", "yes");
}

}  // namespace vexa::hypervisor::domain_build
