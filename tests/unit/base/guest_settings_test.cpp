// The table of a guest's settings: its rows do not contradict each other or their texts.
#include "host/base/guest_settings.h"

#include <gtest/gtest.h>

#include <regex>
#include <set>
#include <utility>

#include "tests/support/matchers.h"
#include "tests/support/setting_values.h"

namespace vexa {
namespace {

using test::InvalidValues;
using test::ScalarSettings;
using test::SettingText;
using test::ValidValues;

TEST(GuestSettings, Names_AreUnique) {
  std::set<std::string> names;
  for (const GuestSetting& setting : kGuestSettings) EXPECT_TRUE(names.insert(setting.name).second) << setting.name;
}

TEST(GuestSettings, Check_EachSetting_AcceptsOnlyValidValues) {
  for (const GuestSetting* setting : ScalarSettings()) {
    for (const Json::Value& value : ValidValues(*setting)) {
      EXPECT_TRUE(IsValidValue(*setting, value)) << setting->name << " " << SettingText(value);
    }
    for (const Json::Value& value : InvalidValues(*setting)) {
      EXPECT_FALSE(IsValidValue(*setting, value)) << setting->name << " " << SettingText(value);
    }
  }
}

TEST(GuestSettings, Check_ListsAndIds_AreNotChecked) {
  for (const GuestSetting& setting : kGuestSettings) {
    if (setting.IsScalar()) continue;
    EXPECT_FALSE(IsValidValue(setting, Json::Value(Json::arrayValue))) << setting.name;
    EXPECT_EQ(DescribeValidValue(setting), setting.type == SettingType::kId ? "a UUID" : "a list");
  }
}

// "0 to 3" or "0 (none) to 3" in a text is the range of the row.
TEST(GuestSettings, Descriptions_Ranges_MatchRows) {
  const std::regex range(R"((\d+)(?: \([a-z ]+\))? to (\d+))");
  for (const GuestSetting* setting : ScalarSettings()) {
    if (setting->type != SettingType::kNumber) continue;
    const std::string expected = std::to_string(setting->min) + " to " + std::to_string(setting->max);
    EXPECT_EQ(DescribeValidValue(*setting), "a number from " + expected);
    int ranges_in_help = 0;
    for (const char* text : {setting->help, setting->for_users, setting->for_hosts}) {
      std::cmatch match;
      if (!std::regex_search(text, match, range)) continue;
      EXPECT_EQ(match[1].str() + " to " + match[2].str(), expected) << setting->name << ": " << text;
      if (text == setting->help) ++ranges_in_help;
    }
    // The limit of this one depends on the guest.
    const int wanted = std::string_view(setting->name) == "cpu_pin_num" ? 0 : 1;
    EXPECT_EQ(ranges_in_help, wanted) << setting->name << ": " << setting->help;
  }
}

TEST(GuestSettings, Descriptions_Words_MatchRows) {
  for (const GuestSetting* setting : ScalarSettings()) {
    for (const std::string_view word : setting->allowed_values) {
      for (const char* text : {setting->help, setting->expected, setting->for_hosts}) {
        EXPECT_THAT(text, HasSubstr(std::string(word))) << setting->name;
      }
    }
  }
}

TEST(GuestSettings, Unit_IsInTheHelp) {
  for (const GuestSetting* setting : ScalarSettings()) {
    if (setting->unit != Unit::kMib) continue;
    EXPECT_THAT(setting->help, HasSubstr("MiB")) << setting->name;
  }
}

TEST(GuestSettings, ByTopic_EachRow_AppearsOnceInOrder) {
  const auto settings = GuestSettingsByTopic();
  ASSERT_EQ(settings.size(), std::size(kGuestSettings));
  for (std::size_t i = 1; i < settings.size(); ++i) {
    EXPECT_LT(std::pair(settings[i - 1]->topic, settings[i - 1]), std::pair(settings[i]->topic, settings[i]))
        << settings[i]->name;
  }
}

TEST(GuestSettings, Find_WholeName_ReturnsItsRow) {
  ASSERT_NE(FindGuestSetting("vcpu_num"), nullptr);
  EXPECT_EQ(FindGuestSetting("vcpu_num"), &GuestSettingOf("vcpu_num"));
  for (const char* name : {"", "vcpu", "vcpu_num ", "VCPU_NUM", "guest_id"}) EXPECT_EQ(FindGuestSetting(name), nullptr);
  EXPECT_EQ(FindGuestSetting(std::string("name\0", 5)), nullptr);
}

TEST(GuestSettings, Texts_HaveTheirLimits) {
  EXPECT_TRUE(IsGuestName(std::string(128, 'x')));
  EXPECT_FALSE(IsGuestName(std::string(129, 'x')));
  EXPECT_FALSE(IsGuestName(""));
  EXPECT_FALSE(IsGuestName("a\x7F"));
  EXPECT_FALSE(IsGuestName("\xFF"));
  EXPECT_TRUE(IsGuestDescription("a\n\tb"));
  EXPECT_TRUE(IsGuestDescription(std::string(65'536, 'x')));
  EXPECT_FALSE(IsGuestDescription(std::string(65'537, 'x')));
  EXPECT_FALSE(IsGuestDescription("\xFF"));
  EXPECT_TRUE(IsKeyboardLayout(std::string(32, 'x')));
  EXPECT_FALSE(IsKeyboardLayout(std::string(33, 'x')));
  EXPECT_FALSE(IsKeyboardLayout("en us"));
}

}  // namespace
}  // namespace vexa
