// Each setting of the table as a word of "vexa guest set" and as a line of "vexa guest edit".
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "cli/guest_settings_text.h"
#include "cli/guest_words.h"
#include "tests/support/setting_values.h"

namespace vexa::cli {
namespace {

using test::InvalidValues;
using test::ScalarSettings;
using test::SettingText;
using test::ValidValues;
using ::testing::ElementsAre;
using ::testing::HasSubstr;

constexpr std::int64_t kKibPerMib = 1024;

// The value as a word of the command line has it.
std::string WordOf(const GuestSetting& setting, const Json::Value& value) {
  return std::string(setting.name) + "=" + (value.isString() ? value.asString() : SettingText(value));
}

Result<Json::Value> ParametersOfSetting(const GuestSetting& setting, const Json::Value& value) {
  GuestWords words;
  words.settings = {WordOf(setting, value)};
  return ParametersOf(words);
}

TEST(CliSettings, Settings_AreInTheOrderInWhichPeopleSeeThem) {
  std::vector<std::string> names;
  for (const GuestSetting* setting : Settings()) names.emplace_back(setting->name);
  EXPECT_THAT(names,
              ElementsAre("name", "desc", "vcpu_num", "cpu_pin_num", "cpu_weight", "cpu_passthru", "hyperv_enlighten",
                          "vram_size", "video_card", "kb_layout", "boot_from", "use_ovmf", "autorun", "usb_version"));
}

TEST(CliSettings, EachSetting_AsAWord_IsAParameter) {
  for (const GuestSetting* setting : ScalarSettings()) {
    for (const Json::Value& value : ValidValues(*setting)) {
      const Result<Json::Value> parameters = ParametersOfSetting(*setting, value);
      ASSERT_TRUE(parameters) << setting->name << ": " << parameters.error().message();
      Json::Value expected(Json::objectValue);
      expected[setting->name] = value;
      EXPECT_EQ(SettingText(*parameters), SettingText(expected));
    }
  }
}

TEST(CliSettings, EachSetting_OutsideItsRangeOrWords_IsRefusedAsTheHostRefusesIt) {
  for (const GuestSetting* setting : ScalarSettings()) {
    for (const Json::Value& value : InvalidValues(*setting)) {
      const bool has_type = setting->type == SettingType::kNumber ? value.isInt64() : value.isString();
      if (!has_type) continue;
      const Result<Json::Value> parameters = ParametersOfSetting(*setting, value);
      if (setting->type == SettingType::kYesNo) {
        EXPECT_FALSE(parameters) << setting->name;
        continue;
      }
      ASSERT_FALSE(parameters) << setting->name << " " << SettingText(value);
      EXPECT_EQ(parameters.error().message(),
                "The parameter '" + std::string(setting->name) + "' is not " + WantedValue(*setting));
    }
  }
}

TEST(CliSettings, EachSetting_OfTheReplyOfGet_IsALineThatReadsBack) {
  Json::Value guest(Json::objectValue);
  Json::Value expected(Json::objectValue);
  for (const GuestSetting* setting : ScalarSettings()) {
    const Json::Value value = ValidValues(*setting).back();
    expected[setting->name] = value;
    guest[setting->name] = setting->unit == Unit::kMib ? Json::Value(value.asInt64() * kKibPerMib) : value;
  }
  const Json::Value settings = SettingsOf(guest);
  EXPECT_EQ(SettingText(settings), SettingText(expected));
  const std::string text = SettingsText("The settings of a guest", settings);
  for (const GuestSetting* setting : ScalarSettings()) {
    EXPECT_THAT(text, HasSubstr("\n# " + std::string(setting->help) + "\n" + setting->name + " = "));
  }
  const Result<Json::Value> read = ParseSettings(text);
  ASSERT_TRUE(read) << read.error().message();
  EXPECT_EQ(SettingText(*read), SettingText(expected));
}

TEST(CliSettings, WhatHasNoSingleValue_IsNotASetting) {
  for (const GuestSetting& setting : kGuestSettings) {
    EXPECT_EQ(FindSetting(setting.name), setting.IsScalar() ? &setting : nullptr) << setting.name;
  }
}

}  // namespace
}  // namespace vexa::cli
