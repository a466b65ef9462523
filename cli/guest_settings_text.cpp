#include "cli/guest_settings_text.h"

#include <json/writer.h>

#include <algorithm>
#include <string_view>
#include <utility>

#include "cli/guest_words.h"
#include "cli/printable.h"
#include "cli/reply.h"
#include "host/base/json_parse.h"

namespace vexa::cli {
namespace {

constexpr std::int64_t kKibPerMib = 1024;
constexpr std::string_view kBlanks = " \t\r";

// What each type of a setting is in the text.
struct TypeRow {
  SettingType type;
  const char* what;
  const char* example;
  bool (*is_it)(const Json::Value& value);
};
constexpr TypeRow kTypes[] = {
    {SettingType::kText, "a text in double quotes", "\"\"", [](const Json::Value& v) { return v.isString(); }},
    // To the person who wrote it, 2.0 is a number with a fraction.
    {SettingType::kNumber, "a whole number", "0",
     [](const Json::Value& v) { return v.isInt64() && v.type() != Json::realValue; }},
    {SettingType::kYesNo, "true or false", "false", [](const Json::Value& v) { return v.isBool(); }},
};

// Of a setting with one value.
const TypeRow& TypeOf(const GuestSetting& setting) { return *std::ranges::find(kTypes, setting.type, &TypeRow::type); }

std::string_view Trimmed(std::string_view text) {
  const std::size_t begin = text.find_first_not_of(kBlanks);
  if (begin == std::string_view::npos) return {};
  return text.substr(begin, text.find_last_not_of(kBlanks) - begin + 1);
}

// Whether an editor shows the text unambiguously: control and invisible characters are written as escapes.
bool IsPlain(std::string text) {
  std::ranges::replace_if(
      text, [](char c) { return c == '\\' || c == '\n' || c == '\t'; }, ' ');
  return Printable(text) == text;
}

std::string ValueText(const Json::Value& value) {
  if (!value.isString() || !IsPlain(value.asString())) return RenderJson(value, JsonLayout::kOneLine);
  Json::StreamWriterBuilder builder;
  builder["indentation"] = "";
  builder["emitUTF8"] = true;
  return Json::writeString(builder, value);
}

Error Bad(std::size_t line, const std::string& text) {
  return Error(ErrorCode::kInvalid, "Line " + std::to_string(line) + ": " + text);
}

Status ReadLine(std::string_view line, std::size_t number, Json::Value& settings) {
  const std::size_t at = line.find('=');
  if (at == std::string_view::npos) return Bad(number, "There is no '='. Use NAME = VALUE, or start comments with '#'");
  const std::string name(Trimmed(line.substr(0, at)));
  const GuestSetting* const setting = FindSetting(name);
  if (!setting) return Bad(number, UnknownSetting(name).message());
  if (settings.isMember(name)) return Bad(number, "The setting '" + name + "' occurs twice");
  Result<Json::Value> value = ParseJson(Trimmed(line.substr(at + 1)));
  const TypeRow& type = TypeOf(*setting);
  if (!value || !type.is_it(*value)) {
    return Bad(number, "The value of '" + name + "' is not " + type.what);
  }
  settings[name] = std::move(*value);
  return {};
}

}  // namespace

Json::Value SettingsOf(const Json::Value& guest) {
  Json::Value settings(Json::objectValue);
  for (const GuestSetting* setting : Settings()) {
    const Json::Value& value = Member(guest, setting->name);
    if (!TypeOf(*setting).is_it(value)) continue;
    // "get" returns KiB, "set" takes MiB.
    const bool is_size = setting->unit == Unit::kMib;
    settings[setting->name] = is_size ? Json::Value(Json::Int64{*Integer(value) / kKibPerMib}) : value;
  }
  return settings;
}

std::string SettingsText(const std::string& title, const Json::Value& settings) {
  std::string text =
      "# " + Printable(title) +
      "\n#\n# Lines that begin with '#' are comments. Change values, save and exit the editor. Settings that are\n"
      "# unchanged or removed here are not touched. If nothing is changed, nothing is sent.\n";
  for (const GuestSetting* setting : Settings()) {
    const bool is_there = settings.isMember(setting->name);
    text += std::string("\n# ") + setting->help + (is_there ? "" : "; not set") + "\n";
    const std::string value = is_there ? ValueText(settings[setting->name]) : TypeOf(*setting).example;
    text += std::string(is_there ? "" : "#") + setting->name + " = " + value + "\n";
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
