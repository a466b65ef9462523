// Each setting of the table on its way through an edit: into the stored record, among what waits for the next start,
// and into the reply of "get".
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "host/records/environment.h"
#include "tests/support/setting_values.h"
#include "tests/unit/guests/guest_edit_environment.h"
#include "webapi/guest/guest.h"

namespace vexa::test {
namespace {

namespace json = VexaVirtualization::json;

constexpr std::int64_t kKibPerMib = 1024;

class GuestSettingsEdit : public testing::Test {
 protected:
  GuestSettingsEdit() : store_(records::CurrentEnvironment()->store), edits_(environment_.Options(store_)) {
    environment_.Fill(*store_);
    before_ = Guest();
  }

  Json::Value Guest() const { return RecordOf(*store_, "guest", kEdited); }
  void Restore() const { PutRecord(*store_, KeyOf("guest", kEdited), before_); }

  // Edits this setting and nothing else; returns its new value.
  Json::Value Change(const GuestSetting& setting) {
    const Json::Value value = OtherValue(setting, json::Member(before_, setting.name));
    Json::Value edit(Json::objectValue);
    edit[setting.name] = value;
    const auto refused = edits_.Edit(kEdited, edit, Alice());
    EXPECT_TRUE(refused.ok()) << refused.error().code << " " << refused.error().reason;
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

  // The definition that a start makes of the records.
  std::string Machine() const {
    domain_xml::BuildOptions options;
    options.pinned_cpus = {0};
    const Result<std::string> xml = domain_xml::BuildDomainXml(RecordsOf(*store_), options);
    EXPECT_TRUE(xml) << xml.error().ToString();
    return xml ? *xml : "";
  }

  TestHost host_;
  const EditEnvironment environment_;
  const std::shared_ptr<store::Store> store_;
  guests::Edits edits_;
  Json::Value before_;
};

TEST_F(GuestSettingsEdit, EachSetting_EditedAlone_IsStored) {
  for (const GuestSetting* setting : ScalarSettings()) {
    SCOPED_TRACE(setting->name);
    Json::Value expected = before_;
    expected[setting->name] = Change(*setting);
    EXPECT_EQ(SettingText(Guest()), SettingText(expected));
    Restore();
  }
}

TEST_F(GuestSettingsEdit, EachSetting_GuestRunning_IsStored) {
  PutRun(*store_);
  for (const GuestSetting* setting : ScalarSettings()) {
    SCOPED_TRACE(setting->name);
    Json::Value expected = before_;
    expected[setting->name] = Change(*setting);
    EXPECT_EQ(SettingText(Guest()), SettingText(expected));
    Restore();
  }
}

TEST_F(GuestSettingsEdit, EachSetting_Edited_IsReturnedByGet) {
  for (const GuestSetting* setting : ScalarSettings()) {
    SCOPED_TRACE(setting->name);
    Json::Value value = Change(*setting);
    if (setting->unit == Unit::kMib) value = Json::Int64{json::Int64(value) * kKibPerMib};
    EXPECT_EQ(SettingText(json::Member(Reply(), setting->name)), SettingText(value));
    Restore();
  }
}

// The record of a guest that is older than a setting lacks it. Its machine is the one that "get" shows.
TEST_F(GuestSettingsEdit, Setting_MissingInRecord_HasSameDefaultInGetAndDomainXml) {
  before_["iso_images"].append("/a.iso");  // with nothing in a drive there is nothing to boot from but the disk
  for (const GuestSetting* setting : ScalarSettings()) {
    if (setting->takes_effect == TakesEffect::kImmediately) continue;
    // Intentional: "get" shows 0 for the first two, which every guest has, and leaves out the third.
    const std::string_view name = setting->name;
    if (name == "vcpu_num" || name == "vram_size" || name == "hyperv_enlighten") continue;
    SCOPED_TRACE(setting->name);
    Json::Value guest = before_;
    guest.removeMember(setting->name);
    PutRecord(*store_, KeyOf("guest", kEdited), guest);
    const std::string machine = Machine();
    const Json::Value shown = json::Member(Reply(), setting->name);
    EXPECT_FALSE(shown.isNull());
    if (setting->type == SettingType::kBoolean) {
      EXPECT_EQ(json::Bool(shown), setting->is_on_by_default);
    }
    guest[setting->name] = shown;
    PutRecord(*store_, KeyOf("guest", kEdited), guest);
    EXPECT_EQ(Machine(), machine);
  }
}

TEST_F(GuestSettingsEdit, EachSetting_InvalidValue_IsRefusedByName) {
  for (const GuestSetting* setting : ScalarSettings()) {
    for (const Json::Value& value : InvalidValues(*setting)) {
      SCOPED_TRACE(std::string(setting->name) + " " + SettingText(value));
      Json::Value edit(Json::objectValue);
      edit[setting->name] = value;
      const auto refused = edits_.Edit(kEdited, edit, Alice());
      ASSERT_FALSE(refused.ok());
      EXPECT_EQ(refused.error().code, kBadEdit);
      EXPECT_THAT(refused.error().reason, testing::StartsWith("The parameter '" + std::string(setting->name) +
                                                              "' is not " + DescribeValidValue(*setting) + ": it is "));
      EXPECT_EQ(SettingText(Guest()), SettingText(before_));
    }
  }
}

}  // namespace
}  // namespace vexa::test
