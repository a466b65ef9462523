#include "cli/guest_settings_text.h"

#include <fmt/format.h>

#include <json/writer.h>

#include <algorithm>
#include <string_view>
#include <utility>

#include "cli/guest_set_arguments.h"
#include "cli/printable.h"
#include "cli/reply.h"
#include "host/base/json_parse.h"

namespace vexa::cli {
namespace {

constexpr std::int64_t kKibPerMib = 1024;
constexpr std::string_view kBlanks = " \t\r";

// How each type of setting is written and parsed.
struct TypeRow {
  SettingType type;
  const char* description;
  const char* example;
  bool (*accepts)(const Json::Value& value);
};
constexpr TypeRow kTypes[] = {
    {SettingType::kString, "a string in double quotes", "\"\"", [](const Json::Value& v) { return v.isString(); }},
    // Intentional: 2.0 is refused, because users read it as a number with a fraction.
    {SettingType::kNumber, "a whole number", "0",
     [](const Json::Value& v) { return v.isInt64() && v.type() != Json::realValue; }},
    {SettingType::kBoolean, "true or false", "false", [](const Json::Value& v) { return v.isBool(); }},
};

// Requires a setting with one value.
const TypeRow& TypeRowOf(const GuestSetting& setting) {
  return *std::ranges::find(kTypes, setting.type, &TypeRow::type);
}

std::string_view Trimmed(std::string_view text) {
  const std::size_t begin = text.find_first_not_of(kBlanks);
  if (begin == std::string_view::npos) return {};
  return text.substr(begin, text.find_last_not_of(kBlanks) - begin + 1);
}

// Whether the string has no control or invisible characters, which an editor would not show.
bool IsPrintedUnchanged(std::string text) {
  std::ranges::replace_if(
      text, [](char c) { return c == '\\' || c == '\n' || c == '\t'; }, ' ');
  return Printable(text) == text;
}

std::string ValueText(const Json::Value& value) {
  if (!value.isString() || !IsPrintedUnchanged(value.asString())) return RenderJson(value, JsonLayout::kOneLine);
  Json::StreamWriterBuilder builder;
  builder["indentation"] = "";
  builder["emitUTF8"] = true;
  return Json::writeString(builder, value);
}

Error Invalid(std::size_t line, const std::string& text) {
  return Error(ErrorCode::kInvalid, fmt::format("Line {}: {}", line, text));
}

Status ReadLine(std::string_view line, std::size_t number, Json::Value& settings) {
  const std::size_t at = line.find('=');
  if (at == std::string_view::npos)
    return Invalid(number, "There is no '='. Use NAME = VALUE, or start comments with '#'");
  const std::string name(Trimmed(line.substr(0, at)));
  const GuestSetting* const setting = FindSetting(name);
  if (!setting) return Invalid(number, UnknownSetting(name).message());
  if (settings.isMember(name)) return Invalid(number, fmt::format("The setting '{}' occurs twice", name));
  Result<Json::Value> value = ParseJson(Trimmed(line.substr(at + 1)));
  const TypeRow& type = TypeRowOf(*setting);
  if (!value || !type.accepts(*value)) {
    return Invalid(number, fmt::format("The value of '{}' is not {}", name, type.description));
  }
  settings[name] = std::move(*value);
  return {};
}

}  // namespace

Json::Value SettingsOf(const Json::Value& guest) {
  Json::Value settings(Json::objectValue);
  for (const GuestSetting* setting : Settings()) {
    const Json::Value& value = Member(guest, setting->name);
    if (!TypeRowOf(*setting).accepts(value)) continue;
    // "get" returns KiB, "set" takes MiB.
    const bool is_size = setting->unit == Unit::kMib;
    settings[setting->name] = is_size ? Json::Value(Json::Int64{*Integer(value) / kKibPerMib}) : value;
  }
  return settings;
}

const char* ExampleOf(const GuestSetting& setting) {
  return setting.type == SettingType::kBoolean && setting.is_on_by_default ? "true" : TypeRowOf(setting).example;
}

std::string SettingsText(const std::string& title, const Json::Value& settings) {
  std::string text = fmt::format(
      "# {}\n#\n# Lines that begin with '#' are comments. Change values, save and exit the editor. Settings that are\n"
      "# unchanged or removed here are not touched. If nothing is changed, nothing is sent.\n",
      Printable(title));
  for (const GuestSetting* setting : Settings()) {
    const bool is_set = settings.isMember(setting->name);
    text += fmt::format("\n# {}{}\n", setting->help, is_set ? "" : "; not set");
    const std::string value = is_set ? ValueText(settings[setting->name]) : ExampleOf(*setting);
    text += fmt::format("{}{} = {}\n", is_set ? "" : "#", setting->name, value);
  }
  return text;
}

Result<Json::Value> ParseSettings(const std::string& text) {
  Json::Value settings(Json::objectValue);
  std::size_t number = 0;
  for (std::size_t begin = 0, end = 0; end != std::string::npos; begin = end + 1) {
    end = text.find('\n', begin);
    const std::string_view line =
        Trimmed(std::string_view(text).substr(begin, end == std::string::npos ? end : end - begin));
    ++number;
    if (line.empty() || line.front() == '#') continue;
    if (Status read = ReadLine(line, number, settings); !read) return read.error();
  }
  return settings;
}

Json::Value ChangedSettings(const Json::Value& before, const Json::Value& after) {
  Json::Value changed(Json::objectValue);
  for (const GuestSetting* setting : Settings()) {
    if (!after.isMember(setting->name)) continue;
    if (!before.isMember(setting->name) || before[setting->name] != after[setting->name]) {
      changed[setting->name] = after[setting->name];
    }
  }
  return changed;
}

}  // namespace vexa::cli
