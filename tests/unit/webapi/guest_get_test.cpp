// Guest::Get on a real store: each member of the reply, each default, each refusal with its log line.
#include <gtest/gtest.h>
#include <syslog.h>

#include "host/records/request_scope.h"
#include "json/readers.h"
#include "tests/support/syslog_capture.h"
#include "tests/support/test_host.h"
#include "webapi/guest/guest.h"

namespace vexa::test {
namespace {

using VexaVirtualization::Guest;

constexpr const char* kGuest = "8f14e45f-ceea-467f-a9d1-0f2b6c1e4a01";
constexpr const char* kDisk1 = "c9f0f895-fb98-4b91-99f5-1fd0297e236d";
constexpr const char* kDisk2 = "45c48cce-2e2d-4fbd-aa1a-fc51c7c6ad26";
constexpr const char* kNic1 = "d3d94468-02a4-4259-b55d-38e6d163e820";
constexpr const char* kNic2 = "6512bd43-d9ca-46e0-8b71-8b0c1b3e0f4e";

class GuestGet : public testing::Test {
 protected:
  void SetUp() override { ClearCapturedSyslog(); }

  // Stores the guest with the members that every record has, and `extra` ones.
  void PutGuest(const std::string& extra = "{}") {
    Json::Value record = Parsed(R"({"name":"web","repository_id":"repo-1","vcpu_num":2,"vram_size":1024,
                                    "cpu_passthru":false,"use_ovmf":false,"vdisks":[],"vnics":[]})");
    const Json::Value members = Parsed(extra);
    for (const std::string& name : members.getMemberNames()) record[name] = members[name];
    host_.Put("guest", kGuest, record);
  }

  VEXA::APIResponse Get(VEXA::APIRequest request) {
    VEXA::APIResponse response;
    Guest::Get(&request, &response);
    return response;
  }

  VEXA::APIResponse Get() { return Get(AdministratorRequest(Parameters(kGuest))); }

  static Json::Value Parameters(const std::string& id) {
    Json::Value parameters(Json::objectValue);
    parameters["guest_id"] = id;
    return parameters;
  }

  // The success's data; a failure fails the test.
  Json::Value Reply() {
    const VEXA::APIResponse response = Get();
    EXPECT_TRUE(response.IsSuccess()) << response.ErrorCode();
    EXPECT_TRUE(CapturedSyslog().empty());
    return response.Data();
  }

  // Expects an error with null details, and exactly one line at error priority: "guest:<line> <text>".
  void ExpectRefusal(const VEXA::APIResponse& response, int code, const std::string& text) {
    ASSERT_TRUE(response.IsSet());
    EXPECT_FALSE(response.IsSuccess());
    EXPECT_EQ(response.ErrorCode(), code);
    EXPECT_TRUE(response.Data().isNull());
    const auto lines = CapturedSyslog();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].priority, LOG_ERR);
    const std::string& line = lines[0].text;
    ASSERT_TRUE(line.starts_with("guest:")) << line;
    const std::size_t blank = line.find(' ');
    ASSERT_NE(blank, std::string::npos);
    EXPECT_GT(blank, std::string("guest:").size());
    EXPECT_EQ(line.find_first_not_of("0123456789", 6), blank) << line;
    EXPECT_EQ(line.substr(blank + 1), text);
  }

  TestHost host_;
};

TEST_F(GuestGet, Get_NoOptionalKeys_ReturnsDefaults) {
  host_.PutText("guest", kGuest, "{}");
  EXPECT_EQ(Reply(), Parsed(R"({"name":null,"repo_id":null,"vcpu_num":0,"vram_size":0,"video_card":"cirrus",
      "cpu_passthru":false,"vdisks":[],"vnics":[],"autorun":0,"is_ha_enabled":false,"desc":"","boot_from":"disk",
      "use_ovmf":false,"usb_version":2,"usbs":["unmounted","unmounted","unmounted","unmounted"],"kb_layout":"Default",
      "cpu_pin_num":0,"cpu_weight":256})"));
}

TEST_F(GuestGet, Get_EveryKey_IsReturnedUnderItsName) {
  PutGuest(R"({"name":"db","repository_id":"repo-2","vcpu_num":4,"vram_size":16,"video_card":"vga","cpu_passthru":true,
      "autorun":2,"ha_group_id":"group-1","desc":"a database","boot_from":"iso","use_ovmf":true,"usb_version":3,
      "usbs":["1","2","3","4"],"kb_layout":"de","cpu_pin_num":2,"cpu_weight":512,"hyperv_enlighten":true,
      "iso_images":["a.iso","unmounted"],"is_general_vm":true,"state":"guest_running","host_id":"not shown"})");
  EXPECT_EQ(Reply(), Parsed(R"({"name":"db","repo_id":"repo-2","vcpu_num":4,"vram_size":16384,"video_card":"vga",
      "cpu_passthru":true,"vdisks":[],"vnics":[],"autorun":2,"is_ha_enabled":true,"desc":"a database","boot_from":"iso",
      "use_ovmf":true,"usb_version":3,"usbs":["1","2","3","4"],"kb_layout":"de","cpu_pin_num":2,"cpu_weight":512,
      "hyperv_enlighten":true,"iso_images":["a.iso","unmounted"],"is_general_vm":true})"));
}

// One row: what the record holds under a key, and what the reply holds for it; "absent" when it has no such member.
struct Conversion {
  const char* name;
  const char* record;
  const char* reply_key;
  const char* expected;
};

std::ostream& operator<<(std::ostream& out, const Conversion& row) { return out << row.name; }

const Conversion kConversions[] = {
    {"NameIsCopied", R"({"name":{"a":[1]}})", "name", R"({"a":[1]})"},
    {"RepositoryIsCopied", R"({"repository_id":7})", "repo_id", "7"},
    {"VcpuRealIsTruncated", R"({"vcpu_num":2.5})", "vcpu_num", "2"},
    {"VcpuTextReadsZero", R"({"vcpu_num":"4"})", "vcpu_num", "0"},
    {"VcpuTooLargeReadsZero", R"({"vcpu_num":3000000000})", "vcpu_num", "0"},
    {"VcpuNullReadsZero", R"({"vcpu_num":null})", "vcpu_num", "0"},
    {"VramIsInKib", R"({"vram_size":16})", "vram_size", "16384"},
    {"VramBeyond32Bits", R"({"vram_size":4194304})", "vram_size", "4294967296"},
    {"VramTextReadsZero", R"({"vram_size":"16"})", "vram_size", "0"},
    {"VramNegative", R"({"vram_size":-1})", "vram_size", "-1024"},
    {"VideoCardNullConverts", R"({"video_card":null})", "video_card", R"("")"},
    {"VideoCardNumberConverts", R"({"video_card":5})", "video_card", R"("5")"},
    {"VideoCardArrayReadsEmpty", R"({"video_card":[]})", "video_card", R"("")"},
    {"PassthruNumberIsTrue", R"({"cpu_passthru":1})", "cpu_passthru", "true"},
    {"PassthruTextReadsFalse", R"({"cpu_passthru":"true"})", "cpu_passthru", "false"},
    {"AutorunNullConverts", R"({"autorun":null})", "autorun", "0"},
    {"AutorunValue", R"({"autorun":1})", "autorun", "1"},
    {"HaGroupPresent", R"({"ha_group_id":"g"})", "is_ha_enabled", "true"},
    {"HaGroupEmptyText", R"({"ha_group_id":""})", "is_ha_enabled", "false"},
    {"HaGroupNull", R"({"ha_group_id":null})", "is_ha_enabled", "false"},
    {"HaGroupObject", R"({"ha_group_id":{"a":1}})", "is_ha_enabled", "false"},
    {"DescNullConverts", R"({"desc":null})", "desc", R"("")"},
    {"DescValue", R"({"desc":"x"})", "desc", R"("x")"},
    {"BootFromNullConverts", R"({"boot_from":null})", "boot_from", R"("")"},
    {"BootFromValue", R"({"boot_from":"iso"})", "boot_from", R"("iso")"},
    {"OvmfNumberIsTrue", R"({"use_ovmf":1})", "use_ovmf", "true"},
    {"UsbVersionNullConverts", R"({"usb_version":null})", "usb_version", "0"},
    {"UsbVersionZero", R"({"usb_version":0})", "usb_version", "0"},
    {"UsbsSixRepliesFour", R"({"usbs":["a","b","c","d","e","f"]})", "usbs", R"(["a","b","c","d"])"},
    {"UsbsTwoLeaveNulls", R"({"usbs":["a","b"]})", "usbs", R"(["a","b",null,null])"},
    {"UsbsEmptyLeavesNulls", R"({"usbs":[]})", "usbs", "[null,null,null,null]"},
    {"UsbsObjectStaysUnmounted", R"({"usbs":{"0":"a"}})", "usbs",
     R"(["unmounted","unmounted","unmounted","unmounted"])"},
    {"UsbsNullStaysUnmounted", R"({"usbs":null})", "usbs", R"(["unmounted","unmounted","unmounted","unmounted"])"},
    {"UsbsTextStaysUnmounted", R"({"usbs":"abcd"})", "usbs", R"(["unmounted","unmounted","unmounted","unmounted"])"},
    {"UsbsElementsAreCopied", R"({"usbs":[{"id":1},2,null,"d"]})", "usbs", R"([{"id":1},2,null,"d"])"},
    {"KeyboardNullConverts", R"({"kb_layout":null})", "kb_layout", R"("")"},
    {"KeyboardValue", R"({"kb_layout":"en-us"})", "kb_layout", R"("en-us")"},
    {"PinNumberNullConverts", R"({"cpu_pin_num":null})", "cpu_pin_num", "0"},
    {"PinNumberValue", R"({"cpu_pin_num":3})", "cpu_pin_num", "3"},
    {"WeightNullConverts", R"({"cpu_weight":null})", "cpu_weight", "0"},
    {"WeightTextReadsZero", R"({"cpu_weight":"512"})", "cpu_weight", "0"},
    {"HypervAbsent", "{}", "hyperv_enlighten", "absent"},
    {"HypervNullConverts", R"({"hyperv_enlighten":null})", "hyperv_enlighten", "false"},
    {"HypervTrue", R"({"hyperv_enlighten":true})", "hyperv_enlighten", "true"},
    {"IsoAbsent", "{}", "iso_images", "absent"},
    {"IsoNullIsCopied", R"({"iso_images":null})", "iso_images", "null"},
    {"IsoIsCopied", R"({"iso_images":["a",1]})", "iso_images", R"(["a",1])"},
    {"GeneralAbsent", "{}", "is_general_vm", "absent"},
    {"GeneralIsCopied", R"({"is_general_vm":"yes"})", "is_general_vm", R"("yes")"},
    {"DisksObjectIsEmpty", R"({"vdisks":{"a":1}})", "vdisks", "[]"},
    {"DisksNullIsEmpty", R"({"vdisks":null})", "vdisks", "[]"},
    {"NicsTextIsEmpty", R"({"vnics":"x"})", "vnics", "[]"},
};

class GuestGetConversion : public GuestGet, public testing::WithParamInterface<Conversion> {};

TEST_P(GuestGetConversion, Get_StoredValue_IsConverted) {
  const Conversion& row = GetParam();
  PutGuest(row.record);
  const Json::Value reply = Reply();
  if (std::string(row.expected) == "absent") {
    EXPECT_FALSE(reply.isMember(row.reply_key));
  } else {
    ASSERT_TRUE(reply.isMember(row.reply_key));
    EXPECT_EQ(reply[row.reply_key], Parsed(row.expected));
  }
}

INSTANTIATE_TEST_SUITE_P(Rows, GuestGetConversion, testing::ValuesIn(kConversions),
                         [](const auto& test) { return std::string(test.param.name); });

TEST_F(GuestGet, Get_RecordNotObject_ReturnsDefaults) {
  host_.PutText("guest", kGuest, "[1,2]");
  const Json::Value reply = Reply();
  EXPECT_EQ(reply["video_card"], "cirrus");
  EXPECT_TRUE(reply["name"].isNull());
}

// Disks.

struct DiskType {
  int type;
  const char* word;
};

class GuestGetDiskType : public GuestGet, public testing::WithParamInterface<DiskType> {};

TEST_P(GuestGetDiskType, Get_KnownDiskType_ReturnsItsName) {
  PutGuest(std::string(R"({"vdisks":[")") + kDisk1 + R"("]})");
  Json::Value disk = Parsed(R"({"format":2,"size":20480,"unmap":true,"is_meta_disk":false})");
  disk["type"] = GetParam().type;
  host_.Put("vdisk", kDisk1, disk);
  const Json::Value reply = Reply();
  ASSERT_EQ(reply["vdisks"].size(), 1u);
  EXPECT_EQ(reply["vdisks"][0]["lun_type"], GetParam().word);
}

INSTANTIATE_TEST_SUITE_P(Rows, GuestGetDiskType,
                         testing::Values(DiskType{1, "alun"}, DiskType{2, "blun"}, DiskType{4, "blun_sink"},
                                         DiskType{8, "blun_cow"}, DiskType{16, "blun_compress"}),
                         [](const auto& test) { return std::string(test.param.word); });

class GuestGetUnknownDiskType : public GuestGet, public testing::WithParamInterface<int> {};

TEST_P(GuestGetUnknownDiskType, Get_OneUnreadableDisk_RefusesRequestWith413) {
  PutGuest(std::string(R"({"vdisks":[")") + kDisk1 + "\",\"" + kDisk2 + R"("]})");
  host_.PutText("vdisk", kDisk1, R"({"format":2,"type":1,"size":1})");
  host_.PutText("vdisk", kDisk2, R"({"format":2,"size":1,"type":)" + std::to_string(GetParam()) + "}");
  ExpectRefusal(Get(), 413, "Unknown vdisk type[" + std::to_string(GetParam()) + "].");
}

INSTANTIATE_TEST_SUITE_P(Values, GuestGetUnknownDiskType, testing::Values(-1, 0, 3, 5, 6, 7, 9, 15, 17, 32));

TEST_F(GuestGet, Get_DiskTypeOfOtherJsonType_ReadsAsZeroAndIsRefused) {
  PutGuest(std::string(R"({"vdisks":[")") + kDisk1 + R"("]})");
  host_.PutText("vdisk", kDisk1, R"({"format":2,"type":"1"})");
  ExpectRefusal(Get(), 413, "Unknown vdisk type[0].");
}

TEST_F(GuestGet, Get_DiskWithoutOptionalKeys_ReturnsDefaults) {
  PutGuest(std::string(R"({"vdisks":[")") + kDisk1 + R"("]})");
  host_.PutText("vdisk", kDisk1, R"({"format":2,"type":2})");
  EXPECT_EQ(Reply()["vdisks"], Parsed(std::string(R"([{"vdisk_id":")") + kDisk1 +
                                      R"(","size":"","lun_type":"blun","vdisk_mode":1,"is_dummy":false,"unmap":false,
                                         "is_meta_disk":false}])"));
}

TEST_F(GuestGet, Get_DiskWithEveryKey_ReturnsEach) {
  PutGuest(std::string(R"({"vdisks":[")") + kDisk1 + R"("]})");
  host_.PutText(
      "vdisk", kDisk1,
      R"({"format":2,"type":4,"size":20480,"vdisk_mode":3,"is_dummy":true,"unmap":true,"is_meta_disk":true})");
  EXPECT_EQ(Reply()["vdisks"], Parsed(std::string(R"([{"vdisk_id":")") + kDisk1 +
                                      R"(","size":"20480","lun_type":"blun_sink","vdisk_mode":3,"is_dummy":true,
                                         "unmap":true,"is_meta_disk":true}])"));
}

TEST_F(GuestGet, Get_DiskModeNull_IsConvertedNotDefaulted) {
  PutGuest(std::string(R"({"vdisks":[")") + kDisk1 + R"("]})");
  host_.PutText("vdisk", kDisk1, R"({"format":2,"type":1,"vdisk_mode":null,"is_dummy":null,"size":"5"})");
  const Json::Value disk = Reply()["vdisks"][0];
  EXPECT_EQ(disk["vdisk_mode"], 0);
  EXPECT_EQ(disk["is_dummy"], false);
  EXPECT_EQ(disk["size"], "5");
}

class GuestGetOtherFormat : public GuestGet, public testing::WithParamInterface<const char*> {};

TEST_P(GuestGetOtherFormat, Get_DiskOfOtherFormat_IsOmittedWhateverItsType) {
  PutGuest(std::string(R"({"vdisks":[")") + kDisk1 + "\",\"" + kDisk2 + R"("]})");
  host_.PutText("vdisk", kDisk1, std::string(R"({"type":3,"format":)") + GetParam() + "}");
  host_.PutText("vdisk", kDisk2, R"({"type":1,"format":2})");
  const Json::Value disks = Reply()["vdisks"];
  ASSERT_EQ(disks.size(), 1u);
  EXPECT_EQ(disks[0]["vdisk_id"], kDisk2);
}

INSTANTIATE_TEST_SUITE_P(Values, GuestGetOtherFormat, testing::Values("1", "3", "0", "-2", "null", R"("2")", "[2]"));

TEST_F(GuestGet, Get_DiskWithoutFormat_IsOmitted) {
  PutGuest(std::string(R"({"vdisks":[")") + kDisk1 + R"("]})");
  host_.PutText("vdisk", kDisk1, R"({"type":1})");
  EXPECT_EQ(Reply()["vdisks"].size(), 0u);
}

TEST_F(GuestGet, Get_Disks_AreInRecordOrder) {
  PutGuest(std::string(R"({"vdisks":[")") + kDisk1 + "\",\"" + kDisk2 + R"("]})");
  host_.PutText("vdisk", kDisk1, R"({"type":1,"format":2})");
  host_.PutText("vdisk", kDisk2, R"({"type":2,"format":2})");
  const Json::Value disks = Reply()["vdisks"];
  ASSERT_EQ(disks.size(), 2u);
  EXPECT_EQ(disks[0]["vdisk_id"], kDisk1);
  EXPECT_EQ(disks[1]["vdisk_id"], kDisk2);
}

TEST_F(GuestGet, Get_DiskListedTwice_IsReturnedTwice) {
  PutGuest(std::string(R"({"vdisks":[")") + kDisk1 + "\",\"" + kDisk1 + R"("]})");
  host_.PutText("vdisk", kDisk1, R"({"type":1,"format":2})");
  EXPECT_EQ(Reply()["vdisks"].size(), 2u);
}

// NICs.

TEST_F(GuestGet, Get_Nics_ReturnsValuesAsStored) {
  PutGuest(std::string(R"({"vnics":[")") + kNic1 + "\",\"" + kNic2 + R"("]})");
  host_.PutText("vnic", kNic1,
                R"({"network_group_id":"net-1","prefer_sriov":true,"mac_address":"02:11:32:00:00:01","vnic_type":1})");
  host_.PutText("vnic", kNic2, R"({"network_group_id":{"a":1},"prefer_sriov":"yes","vnic_type":2.5})");
  EXPECT_EQ(Reply()["vnics"], Parsed(std::string(R"([{"vnic_id":")") + kNic1 +
                                     R"(","network_id":"net-1","prefer_sriov":true,"mac":"02:11:32:00:00:01",
                                        "vnic_type":1},{"vnic_id":")" +
                                     kNic2 + R"(","network_id":{"a":1},"prefer_sriov":"yes","mac":null,
                                        "vnic_type":2.5}])"));
}

// Refusals.

struct BadId {
  const char* name;
  const char* parameters;
};

std::ostream& operator<<(std::ostream& out, const BadId& row) { return out << row.name; }

class GuestGetBadId : public GuestGet, public testing::WithParamInterface<BadId> {};

TEST_P(GuestGetBadId, Get_BadId_Is401BeforeAnyRead) {
  const Json::Value parameters = Parsed(GetParam().parameters);
  ExpectRefusal(Get(UserRequest(parameters, "nobody")), 401,
                "Bad parameters, request: " + VexaVirtualization::json::ToText(parameters));
  EXPECT_EQ(host_.store().reads(), 0);
}

INSTANTIATE_TEST_SUITE_P(
    Rows, GuestGetBadId,
    testing::Values(BadId{"Missing", "{}"}, BadId{"Empty", R"({"guest_id":""})"}, BadId{"Null", R"({"guest_id":null})"},
                    BadId{"Number", R"({"guest_id":5})"}, BadId{"Array", R"({"guest_id":["a"]})"},
                    BadId{"NoUuid", R"({"guest_id":"web"})"},
                    BadId{"Path", R"({"guest_id":"../../../../../../../../../../../etc"})"},
                    BadId{"Format", R"({"guest_id":"%s%s%n","extra":["\n",1]})"},
                    BadId{"TooShort", R"({"guest_id":"8f14e45f-ceea-467f-a9d1-0f2b6c1e4a0"})"},
                    BadId{"TooLong", R"({"guest_id":"8f14e45f-ceea-467f-a9d1-0f2b6c1e4a012"})"},
                    BadId{"TrailingBlank", R"({"guest_id":"8f14e45f-ceea-467f-a9d1-0f2b6c1e4a01 "})"},
                    BadId{"TrailingNewline", R"({"guest_id":"8f14e45f-ceea-467f-a9d1-0f2b6c1e4a01\n"})"},
                    BadId{"TrailingNul", R"({"guest_id":"8f14e45f-ceea-467f-a9d1-0f2b6c1e4a01\u0000"})"},
                    BadId{"NoHex", R"({"guest_id":"8f14e45g-ceea-467f-a9d1-0f2b6c1e4a01"})"},
                    BadId{"MisplacedDash", R"({"guest_id":"8f14e45fc-eea-467f-a9d1-0f2b6c1e4a01"})"}),
    [](const auto& test) { return std::string(test.param.name); });

TEST_F(GuestGet, Get_UserWithoutGrant_Is409AndNamesUser) {
  PutGuest();
  host_.AddUser("mallory");
  ExpectRefusal(Get(UserRequest(Parameters(kGuest), "mallory")), 409,
                std::string("Action on guest[") + kGuest + "] is not allowed from user[mallory]");
}

TEST_F(GuestGet, Get_UserWithoutGrantAndMissingGuest_Is409Not403) {
  host_.AddUser("mallory");
  ExpectRefusal(Get(UserRequest(Parameters(kGuest), "mallory")), 409,
                std::string("Action on guest[") + kGuest + "] is not allowed from user[mallory]");
}

TEST_F(GuestGet, Get_AdvancedUserWithoutGrant_IsRefused) {
  PutGuest();
  host_.PutGuestAdmin("users", host_.AddUser("adam"), "advanced", {});
  ExpectRefusal(Get(UserRequest(Parameters(kGuest), "adam")), 409,
                std::string("Action on guest[") + kGuest + "] is not allowed from user[adam]");
}

TEST_F(GuestGet, Get_GrantedUser_Succeeds) {
  PutGuest();
  host_.PutGuestAdmin("users", host_.AddUser("grace"), "user", {kGuest});
  EXPECT_TRUE(Get(UserRequest(Parameters(kGuest), "grace")).IsSuccess());
}

TEST_F(GuestGet, Get_GuestMissing_Is403) {
  ExpectRefusal(Get(), 403, std::string("Failed to get info of guest[") + kGuest + "] from dashboard.");
}

TEST_F(GuestGet, Get_GuestUnreadable_Is403) {
  PutGuest();
  host_.store().FailReadsOf(host_.ObjectKey("guest", kGuest));
  ExpectRefusal(Get(), 403, std::string("Failed to get info of guest[") + kGuest + "] from dashboard.");
}

TEST_F(GuestGet, Get_GuestDamaged_Is403) {
  host_.PutText("guest", kGuest, "{\"name\":");
  ExpectRefusal(Get(), 403, std::string("Failed to get info of guest[") + kGuest + "] from dashboard.");
}

TEST_F(GuestGet, Get_DiskMissing_Is403) {
  PutGuest(std::string(R"({"vdisks":[")") + kDisk1 + R"("]})");
  ExpectRefusal(Get(), 403, std::string("Failed to get info of vdisk[") + kDisk1 + "] from dashboard.");
}

TEST_F(GuestGet, Get_DiskOfOtherFormatUnreadable_Is403) {
  PutGuest(std::string(R"({"vdisks":[")") + kDisk1 + R"("]})");
  host_.PutText("vdisk", kDisk1, R"({"type":1,"format":1})");
  host_.store().FailReadsOf(host_.ObjectKey("vdisk", kDisk1));
  ExpectRefusal(Get(), 403, std::string("Failed to get info of vdisk[") + kDisk1 + "] from dashboard.");
}

TEST_F(GuestGet, Get_UnknownDiskTypeBeforeMissingDisk_Is413) {
  PutGuest(std::string(R"({"vdisks":[")") + kDisk1 + "\",\"" + kDisk2 + R"("]})");
  host_.PutText("vdisk", kDisk1, R"({"type":3,"format":2})");
  ExpectRefusal(Get(), 413, "Unknown vdisk type[3].");
}

TEST_F(GuestGet, Get_MissingDiskBeforeUnknownType_Is403) {
  PutGuest(std::string(R"({"vdisks":[")") + kDisk1 + "\",\"" + kDisk2 + R"("]})");
  host_.PutText("vdisk", kDisk2, R"({"type":3,"format":2})");
  ExpectRefusal(Get(), 403, std::string("Failed to get info of vdisk[") + kDisk1 + "] from dashboard.");
}

TEST_F(GuestGet, Get_DiskAndNicFail_DiskDecides) {
  PutGuest(std::string(R"({"vdisks":[")") + kDisk1 + R"("],"vnics":[")" + kNic1 + R"("]})");
  host_.PutText("vdisk", kDisk1, R"({"type":3,"format":2})");
  ExpectRefusal(Get(), 413, "Unknown vdisk type[3].");
}

TEST_F(GuestGet, Get_NicMissing_Is403) {
  PutGuest(std::string(R"({"vnics":[")") + kNic1 + R"("]})");
  ExpectRefusal(Get(), 403, std::string("Failed to get info of vnic[") + kNic1 + "] from dashboard.");
}

TEST_F(GuestGet, Get_SecondNicMissing_IsRefusedWithItsId) {
  PutGuest(std::string(R"({"vnics":[")") + kNic1 + "\",\"" + kNic2 + R"("]})");
  host_.PutText("vnic", kNic1, "{}");
  ExpectRefusal(Get(), 403, std::string("Failed to get info of vnic[") + kNic2 + "] from dashboard.");
}

TEST_F(GuestGet, Get_SlashesAndPercentsInDiskId_AreEscaped) {
  // What a damaged guest record may list must not lead to another record.
  PutGuest(R"({"vdisks":["../guest/)" + std::string(kGuest) + R"(","%s"]})");
  ExpectRefusal(Get(), 403, std::string("Failed to get info of vdisk[../guest/") + kGuest + "] from dashboard.");
}

TEST_F(GuestGet, Get_DiskIdsOfOtherTypes_AreReadAsText) {
  PutGuest(R"({"vdisks":[5]})");
  host_.PutText("vdisk", "5", R"({"type":1,"format":2})");
  EXPECT_EQ(Reply()["vdisks"][0]["vdisk_id"], "5");
}

TEST_F(GuestGet, Get_UpperCaseId_IsAnotherGuest) {
  PutGuest();
  std::string upper = kGuest;
  for (char& c : upper) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  ExpectRefusal(Get(AdministratorRequest(Parameters(upper))), 403,
                "Failed to get info of guest[" + upper + "] from dashboard.");
}

TEST_F(GuestGet, RecordChangesDuringTheRequest_OneStateIsSeen) {
  PutGuest(std::string(R"({"vdisks":[")") + kDisk1 + R"("]})");
  host_.PutText("vdisk", kDisk1, R"({"type":1,"format":2,"size":1})");
  const vexa::records::RequestScope scope;
  EXPECT_EQ(Reply()["vdisks"][0]["size"], "1");
  host_.PutText("vdisk", kDisk1, R"({"type":1,"format":2,"size":2})");
  EXPECT_EQ(Reply()["vdisks"][0]["size"], "1");
  { const vexa::records::RequestPause pause; }
  EXPECT_EQ(Reply()["vdisks"][0]["size"], "2");
}

}  // namespace
}  // namespace vexa::test
