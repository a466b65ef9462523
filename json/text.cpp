// Renders JSON. The output equals that of jsoncpp's compact writer, which copies every name and value into a string of
// its own and looks up each member a second time. Replies are rendered often enough for that to matter.
#include <json/writer.h>

#include <string>
#include <string_view>
#include <utility>

#include "json/readers.h"

namespace VexaVirtualization::json {
namespace {

void AppendEscaped(std::string& out, char c) {
  switch (c) {
    case '"':
    case '\\':
      (out += '\\') += c;
      return;
    case '\b':
      out += "\\b";
      return;
    case '\f':
      out += "\\f";
      return;
    case '\n':
      out += "\\n";
      return;
    case '\r':
      out += "\\r";
      return;
    case '\t':
      out += "\\t";
      return;
    default:
      constexpr std::string_view kHexDigits = "0123456789abcdef";
      const auto byte = static_cast<unsigned char>(c);
      out += "\\u00";
      out += kHexDigits[byte >> 4];
      out += kHexDigits[byte & 0x0F];
  }
}

void AppendQuoted(std::string& out, std::string_view text) {
  out += '"';
  std::size_t plain = 0;  // start of the pending run of characters that need no escape
  for (std::size_t i = 0; i < text.size(); ++i) {
    const char c = text[i];
    if (static_cast<unsigned char>(c) >= 0x20 && c != '"' && c != '\\') continue;
    out.append(text, plain, i - plain);
    AppendEscaped(out, c);
    plain = i + 1;
  }
  out.append(text, plain);
  out += '"';
}

void AppendArray(std::string& out, const Json::Value& array) {
  out += '[';
  // By index: an iterator skips elements that were never set.
  for (Json::ArrayIndex i = 0, size = array.size(); i < size; ++i) {
    if (i > 0) out += ',';
    AppendText(out, array[i]);
  }
  out += ']';
}

void AppendObject(std::string& out, const Json::Value& object) {
  out += '{';
  bool first = true;
  for (auto member = object.begin(); member != object.end(); ++member) {
    if (!std::exchange(first, false)) out += ',';
    const char* end = nullptr;
    const char* const name = member.memberName(&end);
    AppendQuoted(out, {name, end});
    out += ':';
    AppendText(out, *member);
  }
  out += '}';
}

}  // namespace

void AppendText(std::string& out, const Json::Value& value) {
  switch (value.type()) {
    case Json::nullValue:
      out += "null";
      return;
    case Json::booleanValue:
      out += Bool(value) ? "true" : "false";
      return;
    case Json::intValue:
      out += std::to_string(Int64(value));
      return;
    case Json::uintValue:
      out += std::to_string(UInt64(value));
      return;
    case Json::realValue:
      out += Json::valueToString(Double(value));
      return;
    case Json::stringValue: {
      const char* begin = nullptr;
      const char* end = nullptr;
      if (value.getString(&begin, &end)) AppendQuoted(out, {begin, end});
      return;
    }
    case Json::arrayValue:
      return AppendArray(out, value);
    case Json::objectValue:
      return AppendObject(out, value);
  }
}

std::string ToText(const Json::Value& value) {
  std::string text;
  AppendText(text, value);
  return text;
}

}  // namespace VexaVirtualization::json
