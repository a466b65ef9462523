#include "host/base/guest_settings.h"

#include <fmt/format.h>

#include "host/base/json_parse.h"
#include "json/readers.h"

namespace vexa {
namespace {

constexpr std::size_t kMaxNameBytes = 128;
constexpr std::size_t kMaxDescriptionBytes = 65'536;
constexpr std::size_t kMaxLayoutBytes = 32;

bool IsControl(char c) { return static_cast<unsigned char>(c) < 0x20 || c == 0x7F; }

bool IsLayoutCharacter(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' || c == '_';
}

}  // namespace

bool IsGuestName(const std::string& text) {
  return !text.empty() && text.size() <= kMaxNameBytes && IsValidUtf8(text) && std::ranges::none_of(text, IsControl);
}

bool IsGuestDescription(const std::string& text) { return text.size() <= kMaxDescriptionBytes && IsValidUtf8(text); }

bool IsKeyboardLayout(const std::string& text) {
  return text.size() <= kMaxLayoutBytes && std::ranges::all_of(text, IsLayoutCharacter);
}

namespace {

bool HasFormat(const GuestSetting& setting, const std::string& text) {
  switch (setting.format) {
    case TextFormat::kGuestName:
      return IsGuestName(text);
    case TextFormat::kDescription:
      return IsGuestDescription(text);
    case TextFormat::kKeyboardLayout:
      return IsKeyboardLayout(text);
    case TextFormat::kOneOf:
      break;
  }
  return std::ranges::find(setting.allowed_values, text) != setting.allowed_values.end();
}

}  // namespace

const GuestSetting* FindGuestSetting(std::string_view name) {
  const auto* const found = std::ranges::find(kGuestSettings, name, &GuestSetting::name);
  return found == std::end(kGuestSettings) ? nullptr : found;
}

std::span<const GuestSetting* const> GuestSettingsByTopic() {
  static const auto settings = [] {
    std::array<const GuestSetting*, std::size(kGuestSettings)> rows{};
    std::ranges::transform(kGuestSettings, rows.begin(), [](const GuestSetting& setting) { return &setting; });
    std::ranges::stable_sort(rows, {}, &GuestSetting::topic);
    return rows;
  }();
  return settings;
}

bool IsValidValue(const GuestSetting& setting, const Json::Value& value) {
  switch (setting.type) {
    case SettingType::kString: {
      if (!value.isString()) return false;
      const std::string text = json::String(value);
      return HasFormat(setting, text);
    }
    case SettingType::kNumber:
      return value.isInt64() && json::Int64(value) >= setting.min && json::Int64(value) <= setting.max;
    case SettingType::kBoolean:
      return value.isBool();
    case SettingType::kId:
    case SettingType::kList:
      break;
  }
  return false;
}

std::string DescribeValidValue(const GuestSetting& setting) {
  switch (setting.type) {
    case SettingType::kNumber:
      return fmt::format("a number from {} to {}", setting.min, setting.max);
    case SettingType::kBoolean:
      return "true or false";
    case SettingType::kString:
      return setting.expected;
    case SettingType::kId:
      return "a UUID";
    case SettingType::kList:
      break;
  }
  return "a list";
}

}  // namespace vexa
