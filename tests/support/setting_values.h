// Values of guests' settings, for tests that go through their table.
#pragma once

#include <gtest/gtest.h>
#include <json/value.h>

#include <string>
#include <vector>

#include "host/base/guest_settings.h"
#include "json/readers.h"

namespace vexa::test {

// jsoncpp considers a signed and an unsigned 1 different, so values are compared by their text.
inline std::string SettingText(const Json::Value& value) { return VexaVirtualization::json::ToText(value); }

// The settings with one value.
inline std::vector<const GuestSetting*> ScalarSettings() {
  std::vector<const GuestSetting*> settings;
  for (const GuestSetting& setting : kGuestSettings) {
    if (setting.IsScalar()) settings.push_back(&setting);
  }
  return settings;
}

// At least two values that a guest can have, the limits of a range and all words among them. A text
// setting whose format refuses these samples needs samples here.
inline std::vector<Json::Value> ValidValues(const GuestSetting& setting) {
  std::vector<Json::Value> values;
  if (setting.type == SettingType::kBoolean) values = {true, false};
  if (setting.type == SettingType::kNumber) {
    for (const std::int64_t number : {setting.min + 1, setting.min, setting.max}) values.emplace_back(number);
  }
  for (const std::string_view word : setting.allowed_values) values.emplace_back(std::string(word));
  if (setting.format != TextFormat::kOneOf) values = {"sample", "other"};
  EXPECT_GE(values.size(), 2u) << setting.name;
  return values;
}

// A value of each JSON type that the setting does not have, and the values just outside its range.
inline std::vector<Json::Value> InvalidValues(const GuestSetting& setting) {
  std::vector<Json::Value> values = {Json::Value(), Json::Value(Json::arrayValue), Json::Value(Json::objectValue), 1.5};
  if (setting.type != SettingType::kString) values.emplace_back("1");
  if (setting.type != SettingType::kBoolean) values.emplace_back(true);
  if (setting.type != SettingType::kNumber) values.emplace_back(1);
  if (setting.type == SettingType::kNumber) {
    values.emplace_back(setting.min - 1);
    values.emplace_back(setting.max + 1);
  }
  if (!setting.allowed_values.empty()) {
    values.emplace_back("");
    values.emplace_back(std::string(setting.allowed_values.front()) + " ");
  }
  return values;
}

// A value that a guest can have, other than `value`.
inline Json::Value OtherValue(const GuestSetting& setting, const Json::Value& value) {
  for (const Json::Value& other : ValidValues(setting)) {
    if (SettingText(other) != SettingText(value)) return other;
  }
  ADD_FAILURE() << setting.name << " has no other value than " << SettingText(value);
  return {};
}

}  // namespace vexa::test
