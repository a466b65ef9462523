// Guest::Set and the host's table of settings: the library accepts and forwards exactly the
// parameters that the host knows.
#include "tests/support/setting_values.h"
#include "tests/unit/webapi/guest_set_fixture.h"
#include "webapi/guest/guest_set_parameters.h"

namespace vexa::test {
namespace {

using vexa::GuestSetting;
using vexa::kGuestSettings;
using vexa::SettingType;
namespace edit = VexaVirtualization::edit;

using GuestSetSettings = GuestSet;

Json::ValueType JsonTypeOf(SettingType type) {
  switch (type) {
    case SettingType::kString:
    case SettingType::kId:
      break;
    case SettingType::kNumber:
      return Json::intValue;
    case SettingType::kBoolean:
      return Json::booleanValue;
    case SettingType::kList:
      return Json::arrayValue;
  }
  return Json::stringValue;
}

TEST_F(GuestSetSettings, Parameters_Listed_MatchTableRowsInOrder) {
  std::vector<std::string> parameters;
  for (std::size_t i = 0; i < edit::kNameCount; ++i)
    parameters.emplace_back(edit::ParameterName(static_cast<edit::Name>(i)));
  std::vector<std::string> expected = {"guest_id"};
  for (const GuestSetting& setting : kGuestSettings) expected.emplace_back(setting.name);
  EXPECT_EQ(parameters, expected);
}

TEST_F(GuestSetSettings, EachParameter_Type_MatchesItsRow) {
  for (const GuestSetting& setting : kGuestSettings) {
    for (const Json::Value& value :
         {Json::Value(kUuid), Json::Value(1), Json::Value(true), Json::Value(Json::arrayValue)}) {
      SCOPED_TRACE(std::string(setting.name) + " " + Text(value));
      const edit::Parameters parameters(AsAdministrator(With(setting.name, value)));
      EXPECT_EQ(parameters.IsAnyInvalid(), value.type() != JsonTypeOf(setting.type));
    }
  }
}

TEST_F(GuestSetSettings, EachSetting_AloneInRequest_IsForwarded) {
  for (const GuestSetting* setting : ScalarSettings()) {
    for (const Json::Value& value : ValidValues(*setting)) {
      SCOPED_TRACE(std::string(setting->name) + " " + Text(value));
      SetUp();
      ExpectNullSuccess(Set(With(setting->name, value)));
      Json::Value members(Json::objectValue);
      members[setting->name] = value;
      ExpectOrderOf("south", members);
    }
  }
}

// The library checks the values of these two itself, and leaves the others to the host.
TEST_F(GuestSetSettings, CheckedValues_OfLibrary_MatchTable) {
  for (const char* name : {"usb_version", "boot_from"}) {
    for (const Json::Value& value : InvalidValues(*vexa::FindGuestSetting(name))) {
      SCOPED_TRACE(std::string(name) + " " + Text(value));
      SetUp();
      ExpectError(Set(With(name, value)), 401);
      ExpectNothingDone();
    }
  }
}

}  // namespace
}  // namespace vexa::test
