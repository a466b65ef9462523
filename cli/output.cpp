#include "cli/output.h"

#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cstddef>
#include <cstdint>
#include <cstdlib>

#include "cli/printable.h"
#include "cli/reply.h"
#include "host/base/utf8.h"

namespace vexa::cli {
namespace {

DataFormat current_format = DataFormat::kJson;

// A word that every reader of YAML takes for a string: letters first, and none of the words for other values.
bool IsPlain(std::string_view text) {
  constexpr std::array<std::string_view, 9> kOtherValues = {"true", "false", "yes", "no", "on",
                                                            "off",  "null",  "y",   "n"};
  const auto is_letter = [](char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); };
  const auto is_inner = [&](char c) {
    return is_letter(c) || (c >= '0' && c <= '9') || c == '_' || c == '-' || c == '.';
  };
  if (text.empty() || !is_letter(text.front()) || !std::ranges::all_of(text, is_inner)) return false;
  std::string lower(text);
  std::ranges::transform(lower, lower.begin(), [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return std::ranges::find(kOtherValues, lower) == kOtherValues.end();
}

std::string YamlText(std::string_view text) {
  if (IsPlain(text)) return std::string(text);
  std::string result = "\"";
  while (!text.empty()) {
    const Character next = FirstCharacter(text);
    const std::uint32_t c = next.bytes == 0 ? 0xFFFD : next.code_point;
    if (c == '"' || c == '\\') {
      result += '\\';
      result += static_cast<char>(c);
    } else if (c >= ' ' && c <= '~') {
      result += static_cast<char>(c);
    } else if (c == '\n') {
      result += "\\n";
    } else if (c <= 0xFF) {
      result += fmt::format("\\x{:02x}", c);
    } else {
      result += c <= 0xFFFF ? fmt::format("\\u{:04x}", c) : fmt::format("\\U{:08x}", c);
    }
    text.remove_prefix(std::max<std::size_t>(next.bytes, 1));
  }
  return result + '"';
}

bool IsEmptyOrScalar(const Json::Value& value) { return !(value.isArray() || value.isObject()) || value.empty(); }

std::string YamlScalar(const Json::Value& value) {
  return value.isString() ? YamlText(value.asString()) : RenderJson(value, JsonLayout::kOneLine);
}

// Lines of `value`, which is a filled list or object, each after `indent` blanks; the first one without them.
void AppendYaml(const Json::Value& value, std::size_t indent, std::string& text) {
  bool is_first = true;
  const auto begin_line = [&] {
    if (!is_first) text.append(indent, ' ');
    is_first = false;
  };
  if (value.isArray()) {
    for (const Json::Value& element : value) {
      begin_line();
      text += "- ";
      if (IsEmptyOrScalar(element)) {
        text += YamlScalar(element) + '\n';
      } else {
        AppendYaml(element, indent + 2, text);
      }
    }
    return;
  }
  for (const std::string& name : value.getMemberNames()) {
    const Json::Value& member = value[name];
    begin_line();
    text += YamlText(name) + ':';
    if (IsEmptyOrScalar(member)) {
      text += ' ' + YamlScalar(member) + '\n';
    } else {
      text += '\n' + std::string(indent + 2, ' ');
      AppendYaml(member, indent + 2, text);
    }
  }
}

std::string NameOf(const Json::Value& object) {
  if (!object.isObject()) return Text(object);
  for (const char* member : {"guest_name", "name", "host_name", "user", "guest_id", "host_id", "network_id", "image_id",
                             "repository_id", "upload_id", "id", "code"}) {
    if (const std::string text = Text(Member(object, member)); !text.empty()) return text;
  }
  return "";
}

// Printable, but with the backslashes as they are: programs pass the name on, and a name without control characters
// stays the name.
std::string PrintableName(std::string_view name) {
  std::string text;
  for (std::size_t end = 0; end != std::string_view::npos;) {
    end = name.find('\\');
    text += Printable(name.substr(0, end));
    if (end == std::string_view::npos) break;
    text += '\\';
    name.remove_prefix(end + 1);
  }
  return text;
}

// The list that a reply consists of, such as {"guests": […]}; null when it is about one object.
const Json::Value& ListIn(const Json::Value& value) {
  if (value.isArray()) return value;
  if (value.isObject() && NameOf(value).empty()) {
    for (const Json::Value& member : value) {
      if (member.isArray()) return member;
    }
  }
  return Json::Value::nullSingleton();
}

}  // namespace

void SetDataFormat(DataFormat format) { current_format = format; }
DataFormat CurrentDataFormat() { return current_format; }

std::string RenderData(const Json::Value& value, DataFormat format) {
  switch (format) {
    case DataFormat::kYaml:
      return RenderYaml(value);
    case DataFormat::kName:
      return RenderNames(value);
    case DataFormat::kJson:
      break;
  }
  return RenderJson(value, JsonLayout::kIndented) + '\n';
}

std::string RenderYaml(const Json::Value& value) {
  if (IsEmptyOrScalar(value)) return YamlScalar(value) + '\n';
  std::string text;
  AppendYaml(value, 0, text);
  return text;
}

std::string RenderNames(const Json::Value& value) {
  std::string text;
  const auto add = [&](const Json::Value& object) {
    if (const std::string name = NameOf(object); !name.empty()) text += PrintableName(name) + '\n';
  };
  const Json::Value& list = ListIn(value);
  if (!list.isArray()) add(value);
  for (const Json::Value& object : list) add(object);
  return text;
}

bool UsesColour() {
  const char* const refused = std::getenv("NO_COLOR");
  const char* const terminal = std::getenv("TERM");
  return (refused == nullptr || *refused == '\0') && terminal != nullptr && std::string_view(terminal) != "dumb" &&
         ::isatty(STDOUT_FILENO) == 1;
}

}  // namespace vexa::cli
