// What a running guest and its records have different.
#include "host/domain_xml/domain_differences.h"

#include <gtest/gtest.h>

#include <functional>

#include "host/base/json_parse.h"
#include "json/readers.h"
#include "tests/support/require.h"
#include "tests/unit/domain_xml/domain_build_fixture.h"

namespace vexa::domain_xml {
namespace {

constexpr char kFirst[] = "11111111-2222-4333-8444-0000000000d1";
constexpr char kSecond[] = "11111111-2222-4333-8444-0000000000d2";
constexpr char kNic[] = "11111111-2222-4333-8444-0000000000e1";

// A guest with something of everything that can change.
GuestRecords FullGuest() {
  GuestRecords records = SmallGuest();
  records.guest["iso_images"].append("/iso/first.iso");
  records.guest["usbs"].append("1234:00ab");
  records.guest["usb_version"] = 3;
  records.disks.emplace_back(kFirst, DiskRecord("vda", 1));
  records.disks.emplace_back(kSecond, DiskRecord("vdb", 1));
  for (auto& [id, disk] : records.disks) disk["size"] = 100;
  records.nics.emplace_back(kNic, NicRecord("52:54:00:00:00:01", "br0"));
  return records;
}

std::string Text(const std::vector<Difference>& differences) {
  return VexaVirtualization::json::ToText(ToJson(differences));
}

std::string Compare(const GuestRecords& running, const GuestRecords& recorded, const DiskSizes& sizes = {}) {
  BuildOptions options;
  options.pinned_cpus = {0, 1};
  const auto found = FindDifferences(MustBuild(running, options), MustBuild(recorded, options), recorded, {sizes, {}});
  EXPECT_TRUE(found) << (found ? "" : found.error().ToString());
  return found ? Text(*found) : "";
}

struct Row {
  const char* name;
  std::function<void(GuestRecords& records)> edit;
  const char* differences;
};
void PrintTo(const Row& row, std::ostream* out) { *out << row.name; }

class Pending : public testing::TestWithParam<Row> {};

TEST_P(Pending, Compare_EditedRecords_ListsPropertyWithBothValues) {
  GuestRecords edited = FullGuest();
  GetParam().edit(edited);
  EXPECT_EQ(Compare(FullGuest(), edited), GetParam().differences);
  // The other way round it is one difference as well, so nothing is noticed in one direction only.
  EXPECT_NE(Compare(edited, FullGuest()), "[]");
}

Row Setting(const char* name, const Json::Value& value, const char* differences) {
  return {name, [name, value](GuestRecords& records) { records.guest[name] = value; }, differences};
}

INSTANTIATE_TEST_SUITE_P(
    Properties, Pending,
    testing::Values(
        Setting("vcpu_num", 3, R"([{"property":"vcpu_num","recorded":3,"running":2}])"),
        Setting("vram_size", 513, R"([{"property":"vram_size","recorded":513,"running":512}])"),
        Setting("cpu_weight", 300, R"([{"property":"cpu_weight","recorded":300,"running":256}])"),
        Setting("cpu_pin_num", 2, R"([{"property":"cpu_pin_num","recorded":2,"running":0}])"),
        Setting("cpu_passthru", true, R"([{"property":"cpu_passthru","recorded":true,"running":false}])"),
        Setting("boot_from", "iso", R"([{"property":"boot_from","recorded":"iso","running":"disk"}])"),
        Setting("use_ovmf", true, R"([{"property":"use_ovmf","recorded":true,"running":false}])"),
        Setting("hyperv_enlighten", true, R"([{"property":"hyperv_enlighten","recorded":true,"running":false}])"),
        Setting("video_card", "vga", R"([{"property":"video_card","recorded":"vga","running":"cirrus"}])"),
        Setting("kb_layout", "de", R"([{"property":"kb_layout","recorded":"de","running":"Default"}])"),
        Setting("usb_version", 2, R"([{"property":"usb_version","recorded":2,"running":3}])"),
        Row{"disk_added",
            [](GuestRecords& records) {
              records.disks.emplace_back("11111111-2222-4333-8444-0000000000d3", DiskRecord("sda", 4));
            },
            R"([{"id":"11111111-2222-4333-8444-0000000000d3","property":"vdisks",)"
            R"("recorded":{"path":"/images/sda.qcow2","unmap":false,"vdisk_mode":4},"running":null}])"},
        Row{"disk_removed", [](GuestRecords& records) { records.disks.pop_back(); },
            R"([{"id":"vdb.qcow2","property":"vdisks","recorded":null,)"
            R"("running":{"path":"/images/vdb.qcow2","unmap":false,"vdisk_mode":1}}])"},
        Row{"disk_replaced", [](GuestRecords& records) { records.disks[1].second["path"] = "/images/other.qcow2"; },
            R"([{"id":"vdb.qcow2","property":"vdisks","recorded":null,)"
            R"("running":{"path":"/images/vdb.qcow2","unmap":false,"vdisk_mode":1}},)"
            R"({"id":"11111111-2222-4333-8444-0000000000d2","property":"vdisks",)"
            R"("recorded":{"path":"/images/other.qcow2","unmap":false,"vdisk_mode":1},"running":null}])"},
        Row{"disk_mode",
            [](GuestRecords& records) {
              records.disks[1].second["vdisk_mode"] = 4;
              records.disks[1].second["unmap"] = true;
            },
            R"([{"id":"11111111-2222-4333-8444-0000000000d2","property":"vdisks",)"
            R"("recorded":{"path":"/images/vdb.qcow2","unmap":true,"vdisk_mode":4},)"
            R"("running":{"path":"/images/vdb.qcow2","unmap":false,"vdisk_mode":1}}])"},
        Row{"disk_order", [](GuestRecords& records) { std::swap(records.disks[0], records.disks[1]); },
            R"([{"property":"vdisks_order",)"
            R"("recorded":["11111111-2222-4333-8444-0000000000d2","11111111-2222-4333-8444-0000000000d1"],)"
            R"("running":["11111111-2222-4333-8444-0000000000d1","11111111-2222-4333-8444-0000000000d2"]}])"},
        Row{"nic_added",
            [](GuestRecords& records) {
              records.nics.emplace_back("11111111-2222-4333-8444-0000000000e2", NicRecord("52:54:00:00:00:02", ""));
            },
            R"([{"id":"11111111-2222-4333-8444-0000000000e2","property":"vnics",)"
            R"("recorded":{"mac":"52:54:00:00:00:02","network":"","vnic_type":1},"running":null}])"},
        Row{"nic_removed", [](GuestRecords& records) { records.nics.clear(); },
            R"([{"id":"52:54:00:00:00:01","property":"vnics","recorded":null,)"
            R"("running":{"mac":"52:54:00:00:00:01","network":"br0","vnic_type":1}}])"},
        Row{"nic_changed",
            [](GuestRecords& records) {
              records.nics[0].second["network_name"] = "br1";
              records.nics[0].second["vnic_type"] = 3;
            },
            R"([{"id":"11111111-2222-4333-8444-0000000000e1","property":"vnics",)"
            R"("recorded":{"mac":"52:54:00:00:00:01","network":"br1","vnic_type":3},)"
            R"("running":{"mac":"52:54:00:00:00:01","network":"br0","vnic_type":1}}])"},
        Row{"drive_changed", [](GuestRecords& records) { records.guest["iso_images"][0] = "unmounted"; },
            R"([{"property":"iso_images","recorded":["unmounted"],"running":["/iso/first.iso"]}])"},
        Row{"usb_changed", [](GuestRecords& records) { records.guest["usbs"].append("3.14"); },
            R"([{"property":"usbs","recorded":["1234:00ab","3.14"],"running":["1234:00ab"]}])"}),
    [](const auto& row) { return std::string(row.param.name); });

TEST(PendingDifferences, Compare_SameRecords_FindsNone) { EXPECT_EQ(Compare(FullGuest(), FullGuest()), "[]"); }

TEST(PendingDifferences, Compare_DiskHasOtherSizeThanRecord_ListsBothSizes) {
  EXPECT_EQ(Compare(FullGuest(), FullGuest(), {{"/images/vda.qcow2", 50}, {"/images/vdb.qcow2", 100}}),
            R"([{"id":"11111111-2222-4333-8444-0000000000d1","property":"vdisks","recorded":)"
            R"({"path":"/images/vda.qcow2","size":100},"running":{"path":"/images/vda.qcow2","size":50}}])");
}

// Hosts send each other what waits, and leave it out when they apply an edit.
TEST(PendingDifferences, Json_ReadBack_AreTheSameDifferences) {
  GuestRecords edited = FullGuest();
  edited.guest["vcpu_num"] = 3;
  edited.guest["iso_images"][0] = "unmounted";
  edited.disks[1].second["vdisk_mode"] = 4;
  edited.nics.clear();
  const auto found =
      FindDifferences(MustBuild(FullGuest()), MustBuild(edited), edited, {{{"/images/vda.qcow2", 50}}, {}});
  ASSERT_TRUE(found);
  EXPECT_GE(found->size(), 5U);
  EXPECT_EQ(DifferencesFromJson(test::Require(ParseJson(Text(*found)))), *found);
}

TEST(PendingDifferences, Compare_RunningXmlNamesMoreThanRecords_FindsNone) {
  // What libvirt and QEMU add: addresses, aliases, targets on the host, backing chains, the network's bridge.
  constexpr char kRecorded[] =
      "<domain type='kvm'><memory unit='MiB'>512</memory><vcpu>2</vcpu><devices>"
      "<disk type='file' device='disk'><driver name='qemu' type='qcow2'/><source file='/a'/>"
      "<target dev='vda' bus='virtio'/><boot order='1'/></disk>"
      "<interface type='network'><mac address='52:54:00:00:00:01'/><source network='lan'/><model type='virtio'/>"
      "</interface></devices></domain>";
  constexpr char kRunning[] =
      "<domain type='kvm' id='4'><memory unit='KiB'>524288</memory><currentMemory unit='KiB'>524288</currentMemory>"
      "<vcpu placement='static' current='2'>8</vcpu><resource><partition>/machine</partition></resource><devices>"
      "<disk type='file' device='disk'><driver name='qemu' type='qcow2'/><source file='/a' index='1'/><backingStore/>"
      "<target dev='vda' bus='virtio'/><boot order='1'/><alias name='virtio-disk0'/></disk>"
      "<interface type='bridge'><mac address='52:54:00:00:00:01'/><source network='lan' portid='x' bridge='br0'/>"
      "<target dev='vnet0'/><model type='virtio'/><alias name='net0'/></interface></devices></domain>";
  const auto found = FindDifferences(kRunning, kRecorded, SmallGuest(), {});
  ASSERT_TRUE(found) << found.error().ToString();
  EXPECT_EQ(Text(*found), "[]");
}

TEST(PendingDifferences, Compare_DiskAddedWhileRunning_HasNoPlaceInBootOrder) {
  // A disk that was added to the running guest has no boot order there, and the order stays.
  GuestRecords records = FullGuest();
  std::string running = MustBuild(records);
  running.erase(running.find("<boot order=\"1\" />"), std::string("<boot order=\"1\" />").size());
  const auto found = FindDifferences(running, MustBuild(records), records, {});
  ASSERT_TRUE(found);
  EXPECT_EQ(Text(*found), "[]");
}

TEST(PendingDifferences, Compare_XmlOfSomethingElse_IsInvalid) {
  const auto found = FindDifferences("<network/>", MustBuild(SmallGuest()), SmallGuest(), {});
  ASSERT_FALSE(found);
  EXPECT_EQ(found.error().code(), ErrorCode::kInvalid);
}

}  // namespace
}  // namespace vexa::domain_xml
