// Edits of guests whose files stay as they are: what is refused, what is stored, what waits for the next start.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <thread>

#include "host/domain_xml/domain_parse.h"
#include "host/records/environment.h"
#include "host/records/network_record.h"
#include "tests/support/setting_values.h"
#include "tests/unit/guests/guest_edit_environment.h"

namespace vexa::test {
namespace {

class GuestEdit : public testing::Test {
 protected:
  GuestEdit() : store_(records::CurrentEnvironment()->store), options_(environment_.Options(store_)) {
    environment_.Fill(*store_);
    before_ = Everything(*store_);
    images_ = environment_.Images();
  }

  Result<void, Refusal> Edit(const std::string& edit) { return Edits(options_).Edit(kEdited, Parsed(edit), Alice()); }
  int Code(const std::string& edit) {
    const auto refused = Edit(edit);
    EXPECT_TRUE(refused.ok() || !refused.error().reason.empty());
    return !refused.ok() ? refused.error().code : 0;
  }
  Json::Value Guest() { return RecordOf(*store_, "guest", kEdited); }
  // Refused with `code`, and nothing happened. Addresses may have been reserved.
  void ExpectRefused(const std::string& edit, int code) {
    SCOPED_TRACE(edit);
    EXPECT_EQ(Code(edit), code);
    Texts now = Everything(*store_);
    std::erase_if(now, [](const auto& entry) { return entry.first.starts_with("/mac/"); });
    EXPECT_EQ(now, before_);
    EXPECT_EQ(environment_.Images(), images_);
  }

  TestHost host_;
  const EditEnvironment environment_;
  const std::shared_ptr<store::Store> store_;
  guests::EditOptions options_;
  Texts before_;
  std::map<std::string, std::int64_t> images_;
};

struct Row {
  const char* name;
  std::vector<const char*> valid;
  std::vector<const char*> invalid;  // beside what no parameter takes
};
const std::vector<Row> kRows = {
    {"vcpu_num", {"1", "512"}, {"0", "513", "-1", "1.5", "\"1\"", "true", "[]", "{}", "99999999999999999999"}},
    {"vram_size", {"1", "2097151"}, {"0", "2097152", "1.5", "\"1\"", "true", "[]", "{}", "-9223372036854775808"}},
    {"autorun", {"1", "2"}, {"-1", "3", "\"1\"", "true", "[]", "{}"}},
    {"cpu_pin_num", {"1", "2"}, {"-1", "513", "3", "\"1\"", "true", "[]", "{}"}},
    {"cpu_weight", {"2", "262144"}, {"1", "262145", "\"2\"", "false", "[]", "{}"}},
    {"usb_version", {"0", "3"}, {"-1", "4", "\"1\"", "true", "[]", "{}"}},
    {"cpu_passthru", {"true"}, {"1", "\"true\"", "[]", "{}"}},
    {"hyperv_enlighten", {"true", "false"}, {"0", "\"\"", "[]", "{}"}},
    {"use_ovmf", {"true"}, {"1", "\"\"", "[]", "{}"}},
    {"name", {"\"mail\"", "\"ä/b\""}, {"\"\"", "7", "true", "[]", "{}", "\"a\\nb\"", "\"a\\u0000b\""}},
    {"desc", {"\"\"", "\"a\\nb\""}, {"7", "true", "[]", "{}"}},
    {"video_card", {"\"qxl\"", "\"virtio\""}, {"\"\"", "\"VGA\"", "7", "true", "[]", "{}"}},
    {"boot_from", {"\"iso\""}, {"\"ISO\"", "\"\"", "7", "true", "[]", "{}"}},
    {"kb_layout", {"\"en-us\"", "\"\""}, {"\"a b\"", "\"../x\"", "7", "true", "[]", "{}"}},
};

TEST(GuestEditRows, Members_OfEdit_AreTheScalarSettings) {
  std::vector<std::string> members;
  for (const Row& row : kRows) members.emplace_back(row.name);
  std::vector<std::string> settings;
  for (const GuestSetting* setting : ScalarSettings()) settings.emplace_back(setting->name);
  EXPECT_THAT(members, testing::UnorderedElementsAreArray(settings));
}

TEST_F(GuestEdit, EachMember_IsStoredAsGiven) {
  for (const Row& row : kRows) {
    for (const char* value : row.valid) {
      SCOPED_TRACE(std::string(row.name) + " " + value);
      const auto refused = Edit(std::string("{\"") + row.name + "\":" + value + "}");
      EXPECT_TRUE(refused.ok()) << refused.error().reason;
      EXPECT_EQ(Guest()[row.name], Parsed(value));
      Json::Value other = Guest();
      Json::Value was = Parsed(before_.at(KeyOf("guest", kEdited)));
      other.removeMember(row.name);
      was.removeMember(row.name);
      EXPECT_EQ(other, was);
      PutText(*store_, KeyOf("guest", kEdited), before_.at(KeyOf("guest", kEdited)));
    }
  }
}

TEST_F(GuestEdit, EachMember_WrongTypeOrRange_IsRefused) {
  for (const Row& row : kRows) {
    ExpectRefused(std::string("{\"") + row.name + "\":null}", 401);
    for (const char* value : row.invalid) ExpectRefused(std::string("{\"") + row.name + "\":" + value + "}", 401);
  }
  ExpectRefused("{\"name\":\"" + std::string(129, 'x') + "\"}", 401);
  ExpectRefused(R"({"hyperv_enlighten":true,"cpu_passthru":false})", 401);
  ExpectRefused(R"({"vcpu_num":4,"autorun":9})", 401);
}

TEST_F(GuestEdit, Lists_InvalidElement_IsRefused) {
  const std::string nic0 = std::string("\"vnic_id\":\"") + kNic0 + "\"";
  const std::string disk0 = std::string("\"vdisk_id\":\"") + kDisk0 + "\"";
  for (const char* list : {"vnics_add", "vnics_del", "vnics_edit", "vdisks_add", "vdisks_del", "vdisks_edit",
                           "vdisks_order", "iso_images", "usbs"}) {
    for (const char* value : {"7", "\"x\"", "{}", "true", "null", "[7]", "[null]", "[[]]", "[true]"}) {
      ExpectRefused(std::string("{\"") + list + "\":" + value + "}", 401);
    }
  }
  for (const char* edit : {R"({"vnics_add":[{}]})",
                           R"({"vnics_add":[{"network_id":7}]})",
                           R"({"vnics_add":[{"network_id":"x"}]})",
                           R"({"vnics_add":[{"network_id":"","vnic_type":0}]})",
                           R"({"vnics_add":[{"network_id":"","vnic_type":4}]})",
                           R"({"vnics_add":[{"network_id":"","vnic_type":"1"}]})",
                           R"({"vnics_add":[{"network_id":"","prefer_sriov":1}]})",
                           R"({"vnics_add":[{"network_id":"","mac":7}]})",
                           R"({"vnics_add":[{"network_id":"","mac":"02:00:00:00:00"}]})",
                           R"({"vnics_add":[{"network_id":"","mac":"01:00:00:00:00:01"}]})",
                           R"({"vnics_add":[{"network_id":"","mac":"00:00:00:00:00:00"}]})",
                           R"({"vnics_add":[{"network_id":"","mac":"02-00-00-00-00-09"}]})",
                           R"({"vnics_del":[{"vnic_id":"x"}]})",
                           R"({"vdisks_add":[{}]})",
                           R"({"vdisks_add":[{"vdisk_size":0}]})",
                           R"({"vdisks_add":[{"vdisk_size":"9"}]})",
                           R"({"vdisks_add":[{"vdisk_size":2147483648}]})",
                           R"({"vdisks_add":[{"vdisk_size":9,"vdisk_mode":5}]})",
                           R"({"vdisks_add":[{"vdisk_size":9,"unmap":1}]})",
                           R"({"vdisks_add":[{"vdisk_size":9,"format":"vmdk"}]})",
                           R"({"vdisks_order":[{"vdisk_id":7}]})"}) {
    ExpectRefused(edit, 401);
  }
  ExpectRefused("{\"vnics_edit\":[{" + nic0 + ",\"mac\":\"\"}]}", 401);
  ExpectRefused("{\"vnics_edit\":[{" + nic0 + ",\"vnic_type\":9}]}", 401);
  ExpectRefused("{\"vdisks_edit\":[{" + disk0 + "}]}", 401);
  ExpectRefused("{\"vdisks_edit\":[{" + disk0 + ",\"vdisk_size\":9,\"vdisk_mode\":0}]}", 401);
}

TEST_F(GuestEdit, Edit_UnknownParts_AreRefused) {
  const std::string nobody = std::string("\"") + kUnknownId + "\"";
  ExpectRefused("{\"vnics_del\":[{\"vnic_id\":" + nobody + "}]}", 903);
  ExpectRefused("{\"vnics_edit\":[{\"vnic_id\":" + nobody + "}]}", 903);
  ExpectRefused("{\"vnics_add\":[{\"network_id\":" + nobody + "}]}", 903);
  ExpectRefused("{\"vdisks_del\":[{\"vdisk_id\":" + nobody + "}]}", 904);
  ExpectRefused("{\"vdisks_edit\":[{\"vdisk_size\":9,\"vdisk_id\":" + nobody + "}]}", 904);
  ExpectRefused("{\"vdisks_order\":[{\"vdisk_id\":" + nobody + "}]}", 904);
  const auto refused = Edits(options_).Edit(kUnknownId, Parsed("{}"), Alice());
  ASSERT_FALSE(refused.ok());
  EXPECT_EQ(refused.error().code, 403);
}

TEST_F(GuestEdit, Rename_NameOfOtherGuest_IsRefusedButOwnIsNot) {
  ExpectRefused(R"({"name":"db"})", 902);
  ExpectRefused(R"({"name":"web"})", 0);
}

TEST_F(GuestEdit, UsbDevices_ValidAndInvalid_AreStoredOrRefused) {
  EXPECT_EQ(Code(R"({"usbs":["1234:00ab","3.14"]})"), 0);
  EXPECT_EQ(Guest()["usbs"], Parsed(R"(["1234:00ab","3.14","unmounted","unmounted"])"));
  EXPECT_EQ(Code(R"({"usb_version":0})"), 938);
  EXPECT_EQ(Code(R"({"usb_version":0,"usbs":[]})"), 0);
  before_ = Everything(*store_);
  ExpectRefused(R"({"usbs":["1234:00ab"]})", 938);
  ExpectRefused(R"({"usbs":["unmounted","unmounted","unmounted","unmounted","unmounted"]})", 938);
  for (const char* bad : {"", "1234", "12345:1", "x:1", "0.1", "1.256", "1.2.3", "1:2:3", " 1:2", "-1.2"}) {
    ExpectRefused(std::string("{\"usbs\":[\"") + bad + "\"]}", 936);
  }
  // With one device in two ports it could not be started.
  for (const char* same :
       {R"("1234:00ab","1234:00AB")", R"("1234:ab","unmounted","1234:00ab")", R"("3.14","03.014")"}) {
    ExpectRefused(std::string(R"({"usb_version":2,"usbs":[)") + same + "]}", 936);
  }
}

TEST_F(GuestEdit, IsoImages_MissingOrDisk_AreRefused) {
  WriteFile(environment_.File("a.iso"));
  Json::Value image(Json::objectValue);
  image["path"] = environment_.File("a.iso");
  PutRecord(*store_, KeyOf("image", kUnknownId), image);
  before_ = Everything(*store_);
  options_.has_file = [](const std::string& path) { return std::filesystem::exists(path); };
  for (const std::string& bad : {std::string("relative.iso"), environment_.File("b.iso"), std::string("/a/../b"),
                                 std::string(kNetwork0), std::string(""), environment_.PathOf(kDisk0)}) {
    ExpectRefused("{\"iso_images\":[\"" + bad + "\"]}", 932);
  }
  ExpectRefused(R"({"iso_images":["unmounted","unmounted","unmounted"]})", 932);
  const std::string both = "[\"" + environment_.File("a.iso") + "\",\"" + kUnknownId + "\"]";
  EXPECT_EQ(Code("{\"iso_images\":" + both + "}"), 0);
  EXPECT_EQ(Guest()["iso_images"], Parsed(both));
  std::filesystem::remove(environment_.File("a.iso"));
  EXPECT_EQ(Code("{\"iso_images\":" + both + "}"), 0);  // they are in the drives already
}

TEST_F(GuestEdit, Interfaces_AreAddedChangedAndRemoved) {
  const std::string edit = std::string(R"({"vnics_add":[{"network_id":")") + kNetwork1 +
                           R"(","vnic_type":2,"prefer_sriov":true},{"network_id":")" + kNetworkByRecord +
                           R"(","mac":"02:AA:00:00:00:09"}],"vnics_del":[{"vnic_id":")" + kNic1 +
                           R"("}],"vnics_edit":[{"network_id":"","vnic_type":3,"vnic_id":")" + kNic0 + "\"}]}";
  const auto refused = Edit(edit);
  ASSERT_TRUE(refused.ok()) << refused.error().reason;
  const auto records = RecordsOf(*store_);
  ASSERT_EQ(records.nics.size(), 3u);
  EXPECT_EQ(records.nics[0].first, kNic0);
  EXPECT_EQ(records.nics[0].second["network_name"], "");
  EXPECT_EQ(records.nics[0].second["vnic_type"], 3);
  EXPECT_EQ(records.nics[0].second["mac_address"], "02:00:00:00:00:01");
  EXPECT_EQ(records.nics[1].second["network_name"], "br1");
  EXPECT_EQ(records.nics[1].second["prefer_sriov"], true);
  EXPECT_THAT(records.nics[1].second["mac_address"].asString(), testing::MatchesRegex("02(:[0-9a-f][0-9a-f]){5}"));
  EXPECT_EQ(records.nics[2].second["network_name"], "br2");
  EXPECT_EQ(records.nics[2].second["mac_address"], "02:aa:00:00:00:09");
  EXPECT_TRUE(RecordOf(*store_, "vnic", kNic1).isNull());
}

TEST_F(GuestEdit, AddNic_UnknownNetwork_NamesTheNetworks) {
  PutText(*store_, records::NetworkReportKey(kThisHost), R"({"found":[{"name":"br9","kind":"bridge"}]})");
  const std::string edit = std::string(R"({"vnics_add":[{"network_id":")") + kUnknownId + "\"}]}";
  EXPECT_EQ(Edit(edit).error().reason,
            std::string("There is no network '") + kUnknownId + "'. The networks are 'office'");
  // The host is one of the cluster now.
  PutRecord(*store_, KeyOf("host", kThisHost), Parsed(R"({"name":"nas-1"})"));
  EXPECT_EQ(Edit(edit).error().reason,
            std::string("There is no network '") + kUnknownId + "'. The networks are 'br9', 'office'");
  RemoveKey(*store_, KeyOf("network", kNetworkByRecord));
  RemoveKey(*store_, records::NetworkReportKey(kThisHost));
  EXPECT_EQ(Edit(edit).error().reason, std::string("There is no network '") + kUnknownId + "', and no other one");
  EXPECT_EQ(Edit(edit).error().code, 903);
}

TEST_F(GuestEdit, AddNic_NetworkFoundByAHost_IsTaken) {
  PutRecord(*store_, KeyOf("host", kThisHost), Parsed(R"({"name":"nas-1"})"));
  PutText(*store_, records::NetworkReportKey(kThisHost), R"({"found":[{"name":"br9","kind":"bridge"}]})");
  const auto refused = Edit(R"({"vnics_add":[{"network_id":")" + domain_xml::NetworkGroupId("br9") + "\"}]}");
  ASSERT_TRUE(refused.ok()) << refused.error().reason;
  EXPECT_EQ(RecordsOf(*store_).nics.back().second["network_name"], "br9");
}

// Code that removes the network compares the key, so it notices the interface.
TEST_F(GuestEdit, AddNic_NetworkWithRecord_WritesTheGuardOfNetworks) {
  const auto refused = Edit(std::string(R"({"vnics_add":[{"network_id":")") + kNetworkByRecord + "\"}]}");
  ASSERT_TRUE(refused.ok()) << refused.error().reason;
  EXPECT_EQ(TextOf(*store_, records::NetworksGuardKey()), std::string("\"") + kEdited + "\"");
}

TEST_F(GuestEdit, SetMac_InUse_IsRefused) {
  ExpectRefused(R"({"vnics_add":[{"network_id":"","mac":"02:00:00:00:00:03"}]})", 903);
  ExpectRefused(R"({"vnics_add":[{"network_id":"","mac":"02:00:00:00:00:01"}]})", 903);
  ExpectRefused(
      R"({"vnics_add":[{"network_id":"","mac":"02:00:00:00:00:0a"},{"network_id":"","mac":"02:00:00:00:00:0A"}]})",
      903);
  ExpectRefused(std::string(R"({"vnics_edit":[{"mac":"02:00:00:00:00:02","vnic_id":")") + kNic0 + "\"}]}", 903);
}

TEST_F(GuestEdit, AddNic_MoreThan64_IsRefused) {
  std::string list;
  for (int i = 0; i < 63; ++i) list += std::string(i ? "," : "") + R"({"network_id":""})";
  EXPECT_EQ(Code("{\"vnics_add\":[" + list + "]}"), 903);
  EXPECT_EQ(RecordsOf(*store_).nics.size(), 2u);
}

TEST_F(GuestEdit, Edit_RecordOfOlderVersionWithPending_RemovesItWithNextChange) {
  PutRun(*store_);
  Json::Value guest = Parsed(before_.at(KeyOf("guest", kEdited)));
  guest["pending"] = Parsed(R"(["vcpu_num"])");
  PutRecord(*store_, KeyOf("guest", kEdited), guest);
  EXPECT_EQ(Code(R"({"name":"db-1"})"), 0);
  EXPECT_EQ(Code("{}"), 0);
  EXPECT_EQ(Code(R"({"vram_size":16})"), 0);
  EXPECT_FALSE(Guest().isMember("pending"));
  EXPECT_EQ(Guest()["vram_size"], 16);
}

TEST_F(GuestEdit, Edit_ApplyIsNeitherNowNorNextStart_IsRefused) {
  for (const auto& [value, shown] :
       {std::pair(R"("later")", "'later'"), std::pair("true", "true"), std::pair(R"("")", "''")}) {
    const auto refused = Edit(std::string(R"({"vcpu_num":2,"apply":)") + value + "}");
    ASSERT_FALSE(refused.ok()) << value;
    EXPECT_EQ(refused.error().code, 401);
    EXPECT_EQ(refused.error().reason,
              std::string("The parameter 'apply' is not 'now' or 'next_start': it is ") + shown);
  }
}

TEST_F(GuestEdit, Edit_MustApplyNow_IsRefusedWhenRunningGuestCannotTakeIt) {
  options_.check_applies_now = [](const records::Guest& edited) -> Result<void, Refusal> {
    const bool can = edited.records.guest["vcpu_num"] == 2;
    return can ? Result<void, Refusal>() : Refusal{901, "vcpu_num waits"};
  };
  EXPECT_EQ(Code(R"({"vcpu_num":4,"apply":"now"})"), 0) << "it is off";
  PutRun(*store_);
  const auto refused = Edit(R"({"vcpu_num":3,"apply":"now"})");
  ASSERT_FALSE(refused.ok());
  EXPECT_EQ(refused.error().code, 901);
  EXPECT_EQ(refused.error().reason, "vcpu_num waits");
  EXPECT_EQ(Guest()["vcpu_num"], 4);
  EXPECT_EQ(Code(R"({"vcpu_num":3,"apply":"next_start"})"), 0);
  EXPECT_EQ(Code(R"({"vcpu_num":2,"apply":"now"})"), 0);
  EXPECT_EQ(Guest()["vcpu_num"], 2);
  EXPECT_FALSE(Guest().isMember("apply"));
}

TEST_F(GuestEdit, Set_PinsUnavailableForRunningGuest_AreRefused) {
  options_.check_pins = [](const records::Guest& edited) -> Result<void, Refusal> {
    if (edited.records.guest["cpu_pin_num"].asInt() < 2) return {};
    return Refusal{kNotPinned, "too many"};
  };
  EXPECT_EQ(Code(R"({"cpu_pin_num":2})"), 0);  // it does not run
  EXPECT_EQ(Code(R"({"cpu_pin_num":0})"), 0);
  PutRun(*store_);
  EXPECT_EQ(Code(R"({"cpu_pin_num":2})"), 2101);
  EXPECT_EQ(Code(R"({"cpu_pin_num":1})"), 0);
}

TEST_F(GuestEdit, Edit_GuestBeingDeleted_IsBusy) {
  PutText(*store_, records::DeletionKey(kEdited), R"({"host_id":"h","user":"bob","stage":"hiding","files":[]})");
  before_ = Everything(*store_);
  ExpectRefused(R"({"vcpu_num":4})", 915);
  EXPECT_THAT(Edit(R"({"vcpu_num":4})").error().reason, HasSubstr("by 'bob'"));
}

TEST_F(GuestEdit, Edit_Concurrent_LosesNothing) {
  constexpr int kThreads = 4;
  constexpr int kEach = 10;
  std::vector<std::thread> threads;
  std::atomic<int> failed = 0;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      // Each editor is a host of its own, so no claim is between them.
      guests::EditOptions options = options_;
      options.host_id = "host-" + std::to_string(t);
      for (int i = 0; i < kEach; ++i) {
        if (!Edits(options).Edit(kEdited, Parsed(R"({"vnics_add":[{"network_id":""}]})"), Alice()).ok()) ++failed;
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(failed, 0);
  const auto records = RecordsOf(*store_);
  EXPECT_EQ(records.nics.size(), 2u + kThreads * kEach);
  std::set<std::string> macs;
  for (const auto& [id, nic] : records.nics) macs.insert(nic["mac_address"].asString());
  EXPECT_EQ(macs.size(), records.nics.size());
}

TEST_F(GuestEdit, Edit_SameNameOrMacConcurrently_OneSucceeds) {
  constexpr int kGuests = 4;
  std::vector<std::thread> threads;
  std::atomic<int> named = 0;
  std::atomic<int> addressed = 0;
  for (int t = 0; t < kGuests; ++t) {
    const std::string id = std::string("a0000000-0000-4000-8000-00000000000") + std::to_string(t);
    PutRecord(*store_, KeyOf("guest", id), Parsed(R"({"name":"g)" + id + R"(","vcpu_num":1,"vram_size":64})"));
    threads.emplace_back([&, id] {
      if (Edits(options_).Edit(id, Parsed(R"({"name":"wanted"})"), Alice()).ok()) ++named;
      const auto edit = Parsed(R"({"vnics_add":[{"network_id":"","mac":"02:00:00:00:00:77"}]})");
      if (Edits(options_).Edit(id, edit, Alice()).ok()) ++addressed;
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(named, 1);
  EXPECT_EQ(addressed, 1);
}

}  // namespace
}  // namespace vexa::test
