// Each setting of the table in the machine: of a new guest, in the definition of an imported one, and back in a record.
#include "tests/support/setting_values.h"
#include "tests/unit/domain_xml/domain_overlay_fixture.h"

namespace vexa::hypervisor {
namespace {

using test::OtherValue;
using test::ScalarSettings;
using test::SettingText;
using test::ValidValues;

// The settings that the machine has. What counts immediately is not of the machine, or has tests of its own.
std::vector<const GuestSetting*> MachineSettings() {
  std::vector<const GuestSetting*> settings = ScalarSettings();
  std::erase_if(settings, [](const GuestSetting* setting) { return setting->applies != Applies::kAtNextStart; });
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

TEST(DomainSettings, EachSetting_ChangesTheMachineOfANewGuest) {
  const GuestRecords before = WholeGuest();
  const std::string machine = MustBuild(before, WithProcessors());
  for (const GuestSetting* setting : MachineSettings()) {
    SCOPED_TRACE(setting->name);
    GuestRecords records = before;
    records.guest[setting->name] = OtherValue(*setting, before.guest[setting->name]);
    EXPECT_NE(MustBuild(records, WithProcessors()), machine);
  }
}

TEST(DomainSettings, EachSetting_ChangesTheDefinitionOfAnImportedGuest) {
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

TEST(DomainSettings, EachSetting_IsReadFromTheMachineThatHasIt) {
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
}  // namespace vexa::hypervisor
