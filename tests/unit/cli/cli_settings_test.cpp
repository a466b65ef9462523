// Each setting of the table as an argument of "vexa guest set" and as a line of "vexa guest edit".
#include <gtest/gtest.h>

#include "cli/guest_set_arguments.h"
#include "cli/guest_settings_text.h"
#include "tests/support/matchers.h"
#include "tests/support/setting_values.h"

namespace vexa::cli {
namespace {

using test::InvalidValues;
using test::ScalarSettings;
using test::SettingText;
using test::ValidValues;

constexpr std::int64_t kKibPerMib = 1024;

// The setting as an argument of the command line: NAME=VALUE.
std::string ArgumentOf(const GuestSetting& setting, const Json::Value& value) {
  return std::string(setting.name) + "=" + (value.isString() ? value.asString() : SettingText(value));
}

Result<Json::Value> ParametersOfSetting(const GuestSetting& setting, const Json::Value& value) {
  GuestSetArguments arguments;
  arguments.settings = {ArgumentOf(setting, value)};
  return ParametersOf(arguments);
}

TEST(CliSettings, Settings_AreInDisplayOrder) {
  std::vector<std::string> names;
  for (const GuestSetting* setting : Settings()) names.emplace_back(setting->name);
  EXPECT_THAT(names,
              ElementsAre("name", "desc", "vcpu_num", "cpu_pin_num", "cpu_weight", "cpu_passthru", "hyperv_enlighten",
                          "vram_size", "video_card", "kb_layout", "boot_from", "use_ovmf", "autorun", "usb_version"));
}

TEST(CliSettings, EachSetting_AsArgument_IsAParameter) {
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

TEST(CliSettings, EachSetting_InvalidValue_IsRefusedWithTheSentenceOfHosts) {
  for (const GuestSetting* setting : ScalarSettings()) {
    for (const Json::Value& value : InvalidValues(*setting)) {
      const bool has_type = setting->type == SettingType::kNumber ? value.isInt64() : value.isString();
      if (!has_type) continue;
      const Result<Json::Value> parameters = ParametersOfSetting(*setting, value);
      if (setting->type == SettingType::kBoolean) {
        EXPECT_FALSE(parameters) << setting->name;
        continue;
      }
      ASSERT_FALSE(parameters) << setting->name << " " << SettingText(value);
      EXPECT_THAT(parameters.error().message(),
                  testing::StartsWith("The parameter '" + std::string(setting->name) + "' is not " +
                                      DescribeValidValue(*setting) + ": it is "));
    }
  }
}

TEST(CliSettings, EachSetting_InReplyOfGet_IsALineThatCanBeParsed) {
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

// A guest without the setting has its default, so the text must not display the opposite.
TEST(CliSettings, MissingYesNo_IsACommentWithItsDefault) {
  const std::string text = SettingsText("The settings of a guest", Json::Value(Json::objectValue));
  for (const GuestSetting* setting : ScalarSettings()) {
    if (setting->type != SettingType::kBoolean) continue;
    EXPECT_THAT(text, HasSubstr(std::string("\n#") + setting->name + " = " + ExampleOf(*setting) + "\n"));
    GuestSetting changed = *setting;
    for (const bool is_on : {false, true}) {
      changed.is_on_by_default = is_on;
      EXPECT_STREQ(ExampleOf(changed), is_on ? "true" : "false");
    }
  }
}

TEST(CliSettings, FindSetting_NotScalar_ReturnsNull) {
  for (const GuestSetting& setting : kGuestSettings) {
    EXPECT_EQ(FindSetting(setting.name), setting.IsScalar() ? &setting : nullptr) << setting.name;
  }
}

}  // namespace
}  // namespace vexa::cli
