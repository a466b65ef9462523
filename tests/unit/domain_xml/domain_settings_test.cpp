// Each setting in domain XML: of a new guest, of an imported one, and read back into a record.
#include "tests/support/setting_values.h"
#include "tests/unit/domain_xml/domain_overlay_fixture.h"

namespace vexa::domain_xml {
namespace {

using test::OtherValue;
using test::ScalarSettings;
using test::SettingText;
using test::ValidValues;

// The settings that the machine has. What counts immediately is not of the machine, or has tests of its own.
std::vector<const GuestSetting*> MachineSettings() {
  std::vector<const GuestSetting*> settings = ScalarSettings();
  std::erase_if(settings,
                [](const GuestSetting* setting) { return setting->takes_effect == TakesEffect::kImmediately; });
  return settings;
}

// A guest with a disk, a drive, and a value for each setting.
GuestRecords WholeGuest() {
  GuestRecords records = SmallGuest();
  for (const GuestSetting* setting : ScalarSettings()) records.guest[setting->name] = ValidValues(*setting).front();
  records.guest["iso_images"].append("/iso/a.iso");
  records.disks.emplace_back("22222222-2222-4333-8444-555555555555", DiskRecord("vda", 1));
  return records;
}

BuildOptions WithProcessors() {
  BuildOptions options;
  options.pinned_cpus = {4, 5};
  return options;
}

TEST(DomainSettings, EachSetting_NewGuest_ChangesDomainXml) {
  const GuestRecords before = WholeGuest();
  const std::string machine = MustBuild(before, WithProcessors());
  for (const GuestSetting* setting : MachineSettings()) {
    SCOPED_TRACE(setting->name);
    GuestRecords records = before;
    records.guest[setting->name] = OtherValue(*setting, before.guest[setting->name]);
    EXPECT_NE(MustBuild(records, WithProcessors()), machine);
  }
}

TEST(DomainSettings, EachSetting_ImportedGuest_ChangesDefinition) {
  const std::string base = Base();
  const GuestRecords before = RecordsOfBase(base);
  const std::string definition = MustBuild(before, Over(base));
  for (const GuestSetting* setting : MachineSettings()) {
    SCOPED_TRACE(setting->name);
    GuestRecords records = before;
    records.guest[setting->name] = OtherValue(*setting, before.guest[setting->name]);
    EXPECT_NE(MustBuild(records, Over(base)), definition);
  }
}

// A guest that was imported before a setting existed has a record without it, and a definition in which its user may
// have chosen a value.
TEST(DomainSettings, Setting_MissingInRecord_KeepsValueOfImportedDefinition) {
  const GuestRecords imported = RecordsOfBase(Base());
  for (const GuestSetting* setting : MachineSettings()) {
    const std::string_view name = setting->name;
    if (name == "vram_size") continue;  // a record without it is refused
    const Json::Value own = imported.guest[setting->name];
    for (const Json::Value& value : {own, OtherValue(*setting, own)}) {
      SCOPED_TRACE(std::string(setting->name) + " " + SettingText(value));
      GuestRecords records = imported;
      records.guest[setting->name] = value;
      if (name == "vcpu_num") records.guest["cpu_pin_num"] = 0;  // at most the number that is taken away
      const std::string base = MustBuild(records, Over(Base()));
      records.guest.removeMember(setting->name);
      EXPECT_EQ(Canonical(MustBuild(records, Over(base))), Canonical(base));
    }
  }
}

TEST(DomainSettings, EachSetting_Imported_IsReadFromDomainXml) {
  for (const GuestSetting* setting : MachineSettings()) {
    SCOPED_TRACE(setting->name);
    GuestRecords records = WholeGuest();
    for (const Json::Value& value :
         {records.guest[setting->name], OtherValue(*setting, records.guest[setting->name])}) {
      records.guest[setting->name] = value;
      const ImportedGuest imported = MustParse(MustBuild(records, WithProcessors()));
      EXPECT_EQ(SettingText(imported.guest[setting->name]), SettingText(value));
    }
  }
}

}  // namespace
}  // namespace vexa::domain_xml
