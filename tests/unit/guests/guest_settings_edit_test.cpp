// Each setting of the table on its way through an edit: into the stored record, among what waits for the next start,
// and into the reply of "get".
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "host/records/environment.h"
#include "tests/support/setting_values.h"
#include "tests/unit/guests/guest_edit_ground.h"
#include "webapi/guest/guest.h"

namespace vexa::test {
namespace {

using guests::Refused;
namespace json = VexaVirtualization::json;

constexpr std::int64_t kKibPerMib = 1024;

class GuestSettingsEdit : public testing::Test {
 protected:
  GuestSettingsEdit() : store_(cluster::CurrentEnvironment()->store), edits_(ground_.Options(store_)) {
    ground_.Fill(*store_);
    before_ = Guest();
  }

  Json::Value Guest() const { return RecordOf(*store_, "guest", kEdited); }
  void Restore() const { PutRecord(*store_, KeyOf("guest", kEdited), before_); }

  // Edits this setting and nothing else; returns its new value.
  Json::Value Change(const GuestSetting& setting) {
    const Json::Value value = OtherValue(setting, json::Member(before_, setting.name));
    Json::Value edit(Json::objectValue);
    edit[setting.name] = value;
    const Refused refused = edits_.Edit(kEdited, edit, Alice());
    EXPECT_FALSE(refused) << refused->code << " " << refused->reason;
    return value;
  }

  // What "get" replies of the guest.
  static Json::Value Reply() {
    Json::Value parameters(Json::objectValue);
    parameters["guest_id"] = kEdited;
    VEXA::APIRequest request = AdministratorRequest(parameters);
    VEXA::APIResponse response;
    VexaVirtualization::Guest::Get(&request, &response);
    EXPECT_TRUE(response.IsSuccess()) << response.ErrorCode();
    return response.Data();
  }

  TestHost host_;
  const EditGround ground_;
  const std::shared_ptr<store::Store> store_;
  guests::Edits edits_;
  Json::Value before_;
};

TEST_F(GuestSettingsEdit, EachSetting_AloneInAnEdit_IsStored) {
  for (const GuestSetting* setting : ScalarSettings()) {
    SCOPED_TRACE(setting->name);
    Json::Value expected = before_;
    expected[setting->name] = Change(*setting);
    EXPECT_EQ(SettingText(Guest()), SettingText(expected));
    Restore();
  }
}

TEST_F(GuestSettingsEdit, EachSetting_OfARunningGuest_WaitsForTheNextStartAsItsRowSays) {
  PutRun(*store_);
  for (const GuestSetting* setting : ScalarSettings()) {
    SCOPED_TRACE(setting->name);
    Json::Value expected = before_;
    expected[setting->name] = Change(*setting);
    if (setting->applies == Applies::kAtNextStart) expected[guests::kPending].append(setting->name);
    EXPECT_EQ(SettingText(Guest()), SettingText(expected));
    Restore();
  }
}

TEST_F(GuestSettingsEdit, EachSetting_Edited_IsInTheReplyOfGet) {
  for (const GuestSetting* setting : ScalarSettings()) {
    SCOPED_TRACE(setting->name);
    Json::Value value = Change(*setting);
    if (setting->unit == Unit::kMib) value = Json::Int64{json::Int64(value) * kKibPerMib};
    EXPECT_EQ(SettingText(json::Member(Reply(), setting->name)), SettingText(value));
    Restore();
  }
}

TEST_F(GuestSettingsEdit, EachSetting_WithAnInvalidValue_IsRefusedByName) {
  for (const GuestSetting* setting : ScalarSettings()) {
    for (const Json::Value& value : InvalidValues(*setting)) {
      SCOPED_TRACE(std::string(setting->name) + " " + SettingText(value));
      Json::Value edit(Json::objectValue);
      edit[setting->name] = value;
      const Refused refused = edits_.Edit(kEdited, edit, Alice());
      ASSERT_TRUE(refused);
      EXPECT_EQ(refused->code, guests::kBadEdit);
      EXPECT_EQ(refused->reason, "The parameter '" + std::string(setting->name) + "' is not " + WantedValue(*setting));
      EXPECT_EQ(SettingText(Guest()), SettingText(before_));
    }
  }
}

}  // namespace
}  // namespace vexa::test
