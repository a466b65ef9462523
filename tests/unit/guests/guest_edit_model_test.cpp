// Random edits of one guest against a model of its records and files, with the domain XML read back after each.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <random>

#include "host/records/environment.h"
#include "tests/support/setting_values.h"
#include "tests/unit/guests/guest_edit_environment.h"

namespace vexa::test {
namespace {

using guests::Edits;

constexpr int kEdits = 1000;
constexpr const char* kCards[] = {"cirrus", "vga", "vmvga", "qxl", "virtio"};

class Model {
 public:
  explicit Model(unsigned seed) : random_(seed) {}

  Json::Value members{Json::objectValue};
  std::vector<std::pair<std::string, std::int64_t>> disks;  // "" for an id that is not known yet; MiB
  std::vector<std::string> nics;                            // the same

  // An edit that is in order, and the model after it.
  Json::Value Next() {
    Json::Value edit(Json::objectValue);
    switch (Below(8)) {
      case 0:
        Set(edit, "vcpu_num", Below(16) + 4);
        Set(edit, "cpu_weight", Below(1000) + 2);
        break;
      case 1:
        Set(edit, "vram_size", Below(4096) + 1);
        Set(edit, "desc", "text " + std::to_string(Below(99)));
        break;
      case 2:
        Set(edit, "video_card", kCards[Below(5)]);
        Set(edit, "boot_from", Below(2) ? "iso" : "disk");
        Set(edit, "use_ovmf", Below(2) == 0);
        Set(edit, "cpu_passthru", Below(2) == 0);
        break;
      case 3:
        Set(edit, "usb_version", Below(3) + 1);
        edit["usbs"] = Parsed(Below(2) ? R"(["1234:00ab"])" : R"(["3.14","0bda:8153"])");
        members["usbs"] = edit["usbs"];
        while (members["usbs"].size() < 4) members["usbs"].append("unmounted");
        break;
      case 4:
        Set(edit, "name", "name " + std::to_string(Below(99)));
        Set(edit, "iso_images", Parsed(Below(2) ? R"(["/a.iso","unmounted"])" : R"(["unmounted"])"));
        break;
      case 5:
        EditNics(edit);
        break;
      default:
        EditDisks(edit);
    }
    return edit;
  }

 private:
  int Below(int limit) { return static_cast<int>(random_() % static_cast<unsigned>(limit)); }
  void Set(Json::Value& edit, const char* name, const Json::Value& value) { members[name] = edit[name] = value; }

  void EditNics(Json::Value& edit) {
    if (nics.size() > 2 && Below(2)) {
      const auto index = static_cast<std::size_t>(Below(static_cast<int>(nics.size())));
      edit["vnics_del"][0]["vnic_id"] = nics[index];
      nics.erase(nics.begin() + static_cast<std::ptrdiff_t>(index));
    }
    if (nics.size() < 6) {
      edit["vnics_add"][0]["network_id"] = kNetwork1;
      edit["vnics_add"][0]["vnic_type"] = Below(3) + 1;
      nics.emplace_back();
    }
  }

  void EditDisks(Json::Value& edit) {
    if (disks.size() > 1 && Below(2)) {
      const auto index = static_cast<std::size_t>(Below(static_cast<int>(disks.size())));
      edit["vdisks_del"][0]["vdisk_id"] = disks[index].first;
      disks.erase(disks.begin() + static_cast<std::ptrdiff_t>(index));
    }
    if (!disks.empty() && Below(2)) {
      auto& [id, size] = disks[static_cast<std::size_t>(Below(static_cast<int>(disks.size())))];
      size += Below(100);
      edit["vdisks_edit"][0]["vdisk_id"] = id;
      edit["vdisks_edit"][0]["vdisk_size"] = Json::Int64{size};
    }
    if (disks.size() > 1 && Below(2)) {
      std::shuffle(disks.begin(), disks.end(), random_);
      for (const auto& [id, size] : disks) edit["vdisks_order"].append(Json::objectValue)["vdisk_id"] = id;
    }
    if (disks.size() < 5 && Below(2)) {
      disks.emplace_back("", Below(500) + 1);
      edit["vdisks_add"][0]["vdisk_size"] = Json::Int64{disks.back().second};
      edit["vdisks_add"][0]["format"] = Below(2) ? "raw" : "qcow2";
    }
  }

  std::mt19937 random_;
};

// The contents of the records, in the terms of domain XML.
void ExpectReadBack(const domain_xml::GuestRecords& records) {
  domain_xml::BuildOptions build;
  build.domain_type = "test";
  const auto xml = domain_xml::BuildDomainXml(records, build);
  ASSERT_TRUE(xml) << xml.error().ToString();
  domain_xml::ImportOptions import;
  import.repository_id = kRepository;
  import.host_id = kThisHost;
  import.networks = {{"br0", kNetwork0}, { "br1", kNetwork1 }};
  import.size_of = domain_xml::ReadImageSize;
  const auto parsed = domain_xml::ParseDomainXml(*xml, import);
  ASSERT_TRUE(parsed) << parsed.error().ToString();
  // The definition does not say when the guest starts, and has processors of its own only with a host's help.
  constexpr std::string_view kNotOfTheMachine[] = {"autorun", "cpu_pin_num"};
  std::vector<std::string> members{"usbs"};
  for (const GuestSetting* setting : ScalarSettings()) {
    if (std::ranges::count(kNotOfTheMachine, setting->name) == 0) members.emplace_back(setting->name);
  }
  for (const std::string& member : members) {
    EXPECT_EQ(parsed->guest[member].toStyledString(), records.guest[member].toStyledString()) << member;
  }
  EXPECT_EQ(parsed->guest["iso_images"], records.guest["iso_images"]);
  ASSERT_EQ(parsed->disks.size(), records.disks.size());
  for (std::size_t i = 0; i < records.disks.size(); ++i) {
    for (const char* member : {"name", "driver", "type", "path", "vdisk_mode", "unmap"}) {
      EXPECT_EQ(parsed->disks[i].second[member], records.disks[i].second[member]) << member;
    }
    EXPECT_EQ(parsed->disks[i].second["size"].asInt64(), records.disks[i].second["size"].asInt64());
  }
  ASSERT_EQ(parsed->nics.size(), records.nics.size());
  for (std::size_t i = 0; i < records.nics.size(); ++i) {
    for (const char* member : {"mac_address", "vnic_type", "network_name", "network_group_id"}) {
      EXPECT_EQ(parsed->nics[i].second[member], records.nics[i].second[member]) << member;
    }
  }
}

TEST(GuestEditModel, RandomEdits_OneGuest_MatchModelFilesAndDomainXml) {
  TestHost host;
  const EditEnvironment environment;
  const auto store = records::CurrentEnvironment()->store;
  environment.Fill(*store);
  Model model(20261121);
  model.disks = {{kDisk0, 8}, {kDisk1, 16}};
  model.nics = {kNic0, kNic1};
  Edits edits(environment.Options(store));
  (void)edits.Edit(kEdited, Parsed(R"({"desc":"first","iso_images":["unmounted"]})"), Alice());
  model.members = Parsed(R"({"desc":"first","iso_images":["unmounted"]})");
  for (int i = 0; i < kEdits; ++i) {
    const Json::Value edit = model.Next();
    SCOPED_TRACE(std::to_string(i) + ": " + VexaVirtualization::json::ToText(edit));
    const auto refused = edits.Edit(kEdited, edit, Alice());
    ASSERT_TRUE(refused.ok()) << refused.error().reason;
    const auto records = RecordsOf(*store);
    for (const std::string& name : model.members.getMemberNames()) {
      ASSERT_EQ(records.guest[name], Parsed(VexaVirtualization::json::ToText(model.members[name]))) << name;
    }
    ASSERT_EQ(records.disks.size(), model.disks.size());
    std::map<std::string, std::int64_t> images;
    for (std::size_t d = 0; d < model.disks.size(); ++d) {
      auto& [id, size] = model.disks[d];
      if (id.empty()) id = records.disks[d].first;
      ASSERT_EQ(id, records.disks[d].first);
      ASSERT_EQ(size, records.disks[d].second["size"].asInt64());
      images[FileOf(records.disks[d].second)] = size << 20;
    }
    ASSERT_EQ(environment.Images(), images);
    ASSERT_EQ(records.nics.size(), model.nics.size());
    for (std::size_t n = 0; n < model.nics.size(); ++n) {
      if (model.nics[n].empty()) model.nics[n] = records.nics[n].first;
      ASSERT_EQ(model.nics[n], records.nics[n].first);
    }
    ExpectReadBack(records);
    if (testing::Test::HasFailure()) return;
  }
}

}  // namespace
}  // namespace vexa::test
