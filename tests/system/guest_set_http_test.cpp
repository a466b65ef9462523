// Elements of lists, hostile texts and numbers, and what the cluster log says, of edits over HTTP.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <vector>

#include "host/base/json_parse.h"
#include "json/readers.h"
#include "tests/support/matchers.h"
#include "tests/support/test_host.h"
#include "tests/system/guest_set_fixture.h"

namespace vexa::test {
namespace {

class GuestSetHttp : public GuestSetFixture {
 protected:
  static int Code(const std::string& members) { return Set("admin", Body(members)).code; }
  static void ExpectRefused(const std::string& members, int code) {
    const Answer answer = Set("admin", Body(members));
    EXPECT_EQ(answer.code, code) << members.substr(0, 300) << json::ToText(answer.reply);
    EXPECT_EQ(Stored(), Initial()) << members.substr(0, 300);
  }
  static std::string NewestText() { return json::String(NewestEntry()["text"]); }
};

// Elements

struct BadMember {
  const char* list;
  const char* good;  // an element without fault
  const char* bad;   // one whose only fault is the reported one
  const char* line;  // with "%u" for the index
};

// clang-format off
constexpr char kGoodNic[] = R"({"network_id":"","prefer_sriov":false,"vnic_type":1})";
constexpr char kGoodNicId[] = R"({"vnic_id":"e0000000-0000-4000-8000-000000000000"})";
constexpr char kGoodNicEdit[] = R"({"network_id":"","vnic_id":"e0000000-0000-4000-8000-000000000000"})";
constexpr char kGoodDiskId[] = R"({"vdisk_id":"d0000000-0000-4000-8000-000000000000"})";
constexpr char kGoodDiskEdit[] = R"({"vdisk_id":"d0000000-0000-4000-8000-000000000000","vdisk_size":1})";

constexpr BadMember kBadMembers[] = {
    {"vnics_add", kGoodNic, R"({"network_id":"office","prefer_sriov":false,"vnic_type":1})", R"(vincs_add[%u]["network_id"] is invalid)"},
    {"vnics_add", kGoodNic, R"({"network_id":"../x","prefer_sriov":false,"vnic_type":1})", R"(vincs_add[%u]["network_id"] is invalid)"},
    {"vnics_add", kGoodNic, R"({"network_id":"","prefer_sriov":1,"vnic_type":1})", R"(vincs_add[%u]["prefer_sriov"] is not bool)"},
    {"vnics_add", kGoodNic, R"({"network_id":"","vnic_type":1})", R"(vincs_add[%u]["prefer_sriov"] is not bool)"},
    {"vnics_add", kGoodNic, R"({"network_id":"","prefer_sriov":null,"vnic_type":1})", R"(vincs_add[%u]["prefer_sriov"] is not bool)"},
    {"vnics_add", kGoodNic, R"({"network_id":"","prefer_sriov":true,"vnic_type":"1"})", R"(vincs_add[%u]["vinc_type"] is not int)"},
    {"vnics_add", kGoodNic, R"({"network_id":"","prefer_sriov":true})", R"(vincs_add[%u]["vinc_type"] is not int)"},
    {"vnics_add", kGoodNic, R"({"network_id":"","prefer_sriov":true,"vnic_type":2147483648})", R"(vincs_add[%u]["vinc_type"] is not int)"},
    {"vnics_del", kGoodNicId, R"({"vnic_id":"nic"})", R"(vincs_del[%u]["vnic_id"] is invalid)"},
    {"vnics_del", kGoodNicId, R"({"vnic_id":""})", R"(vincs_del[%u]["vnic_id"] is invalid)"},
    {"vnics_del", kGoodNicId, R"({})", R"(vincs_del[%u]["vnic_id"] is invalid)"},
    {"vnics_edit", kGoodNicEdit, R"({"network_id":"office","vnic_id":"e0000000-0000-4000-8000-000000000000"})", R"(vincs_edit[%u]["network_id"] is invalid)"},
    {"vnics_edit", kGoodNicEdit, R"({"network_id":"","vnic_id":"nic"})", R"(vincs_edit[%u]["vnic_id"] is invalid)"},
    {"vnics_edit", kGoodNicEdit, R"({"network_id":""})", R"(vincs_edit[%u]["vnic_id"] is invalid)"},
    {"vnics_edit", kGoodNicEdit, R"({"vnic_id":"e0000000-0000-4000-8000-000000000000","vnic_type":true})", R"(vincs_edit[%u]["vinc_type"] is not int)"},
    {"vnics_edit", kGoodNicEdit, R"({"vnic_id":"e0000000-0000-4000-8000-000000000000","vnic_type":null})", R"(vincs_edit[%u]["vinc_type"] is not int)"},
    {"vdisks_add", R"({"vdisk_size":1})", R"({"vdisk_size":0})", R"(vdisks_add[%u]["vdisk_size"] <= 0)"},
    {"vdisks_add", R"({"vdisk_size":1})", R"({"vdisk_size":-1})", R"(vdisks_add[%u]["vdisk_size"] <= 0)"},
    {"vdisks_add", R"({"vdisk_size":1})", R"({"vdisk_size":4294967297})", R"(vdisks_add[%u]["vdisk_size"] <= 0)"},
    {"vdisks_add", R"({"vdisk_size":1})", R"({"vdisk_size":18446744073709551615})", R"(vdisks_add[%u]["vdisk_size"] <= 0)"},
    {"vdisks_add", R"({"vdisk_size":1})", R"({"vdisk_size":1e300})", R"(vdisks_add[%u]["vdisk_size"] <= 0)"},
    {"vdisks_add", R"({"vdisk_size":1})", R"({})", R"(vdisks_add[%u]["vdisk_size"] <= 0)"},
    {"vdisks_del", kGoodDiskId, R"({"vdisk_id":"d1"})", R"(vdisks_del[%u]["vdisk_id"] is empty)"},
    {"vdisks_del", kGoodDiskId, R"("d0000000-0000-4000-8000-000000000000")", R"(vdisks_del[%u]["vdisk_id"] is empty)"},
    {"vdisks_edit", kGoodDiskEdit, R"({"vdisk_id":"","vdisk_size":1})", R"(vdisks_edit[%u]["vdisk_id"] is empty)"},
    {"vdisks_edit", kGoodDiskEdit, R"({"vdisk_id":"","vdisk_size":0})", R"(vdisks_edit[%u]["vdisk_id"] is empty)"},
    {"vdisks_edit", kGoodDiskEdit, R"({"vdisk_id":"d0000000-0000-4000-8000-000000000000","vdisk_size":0})", R"(vdisks_edit[%u]["vdisk_size"] <= 0)"},
    {"vdisks_edit", kGoodDiskEdit, R"({"vdisk_id":"d0000000-0000-4000-8000-000000000000"})", R"(vdisks_edit[%u]["vdisk_size"] <= 0)"},
    {"vdisks_order", kGoodDiskId, R"({"vdisk_id":5})", R"(vdisks_order[%u]["vdisk_id"] is empty)"},
    {"vdisks_order", kGoodDiskId, R"([])", R"(vdisks_order[%u]["vdisk_id"] is empty)"},
};
// clang-format on

std::string WithIndex(std::string line, int index) { return line.replace(line.find("%u"), 2, std::to_string(index)); }

TEST_F(GuestSetHttp, Set_InvalidElements_AreReportedWithIndex) {
  for (const BadMember& row : kBadMembers) {
    for (const int index : {0, 1}) {
      const std::string members =
          '"' + std::string(row.list) + "\":[" + (index == 1 ? row.good + std::string(",") : "") + row.bad + "]";
      ClearCapturedSyslog();
      ExpectRefused(members, 401);
      const std::string request = json::ToText(Parsed(Body(members)));
      EXPECT_THAT(GuestLines(),
                  ElementsAre("Bad parameters (" + WithIndex(row.line, index) + "), request: " + request));
    }
  }
}

TEST_F(GuestSetHttp, Set_AddressInUse_IsOnlyInDetails) {
  for (const char* list : {"vnics_add", "vnics_edit"}) {
    const bool is_edit = list == std::string("vnics_edit");
    const std::string good = is_edit ? kGoodNicEdit : kGoodNic;
    std::string bad = good;
    bad.insert(1, std::string(R"("mac":")") + kTakenMac + "\",");
    for (const std::string& elements : {bad, good + "," + bad}) {
      ClearCapturedSyslog();
      const Answer answer = Set("admin", Body('"' + std::string(list) + "\":[" + elements + "]"));
      EXPECT_EQ(answer.code, 910);
      EXPECT_EQ(answer.details["mac_addr"], kTakenMac);
      EXPECT_EQ(answer.details["guest_name"], "db");
      EXPECT_TRUE(GuestLines().empty());
      EXPECT_EQ(Stored(), Initial());
    }
  }
}

TEST_F(GuestSetHttp, Set_OtherErrors_HaveTheirMessage) {
  const auto message_of = [](const std::string& members) {
    ClearCapturedSyslog();
    EXPECT_NE(Code(members), 0);
    const std::vector<std::string> lines = GuestLines();
    return lines.size() == 1 ? lines[0] : std::to_string(lines.size()) + " lines";
  };
  const auto bad = [](const std::string& what, const std::string& members) {
    return "Bad parameters" + what + ", request: " + json::ToText(Parsed(Body(members)));
  };
  std::string members = R"("vcpu_num":"two")";
  EXPECT_EQ(message_of(members), bad("", members));
  members = R"("boot_from":"ISO")";
  EXPECT_EQ(message_of(members), bad(" (boot_from is invalid)", members));
  members = R"("iso_images":["unmounted",5])";
  EXPECT_EQ(message_of(members), bad(" (iso_images is invalid)", members));
  EXPECT_EQ(message_of(R"("hyperv_enlighten":true,"cpu_passthru":false)"),
            "Cpu compatible mode and hyper-V are mutual exclusive.");
  EXPECT_EQ(message_of(R"("usb_version":-1)"), "Unknown usb version (-1)");
  EXPECT_EQ(message_of(R"("name":"db")"), "Guest name[db] conflict.");
}

// Images

TEST_F(GuestSetHttp, Set_ImageOutsideFolders_IsRefused) {
  const std::string outside = daemon().folder().File("outside.iso");
  std::ofstream(outside) << "not below the folder";
  std::filesystem::create_symlink(outside, ImageFolder() + "/isos/link.iso");
  std::ofstream(ImageFolder() + "/isos/100%2e.iso") << "an image with an odd name";
  const auto code = [](const std::string& path) {
    return Code(R"("iso_images":[)" + json::ToText(Json::Value(path)) + "]");
  };
  for (const std::string& path : {
           outside,
           ImageFolder() + "/isos/link.iso",
           ImageFolder() + "/isos/../../../outside.iso",
           ImageFolder() + "/isos/../isos/tools.iso",
           ImageFolder() + "/isos/%2e%2e/isos/tools.iso",
           ImageFolder() + "/isos/%74ools.iso",
           ImageFolder() + "/isos/tools.iso/",
           ImageFolder() + "/isos/tools.iso\n",
           ImageFolder() + "/isos/tools.iso" + std::string(1, '\0') + ".iso",
           ImageFolder() + "/isos",
           std::string("/dev/null"),
           std::string("/%n%n%n/x.iso"),
           "/a/" + std::string(100'000, 'a') + ".iso",
       }) {
    EXPECT_EQ(code(path), 934) << path.substr(0, 200);
    EXPECT_EQ(Stored(), Initial());
  }
  for (const char* path : {"", "/", "..", "../isos/tools.iso", "%2e%2e/tools.iso", "tools.iso", "Unmounted"}) {
    EXPECT_EQ(code(path), 401) << path;
    EXPECT_EQ(Stored(), Initial());
  }
  EXPECT_EQ(code(ImageFolder() + "/isos/100%2e.iso"), 0) << "nothing in a path is decoded";
  Restore();
  // A guest's disk is not an image, whatever it is named.
  const std::string disk = ImageFolder() + "/isos/disk.iso";
  std::ofstream(disk) << "the neighbour's data";
  EXPECT_EQ(code(disk), 0);
  Restore();
  Put("vdisk", "disk-of-neighbour", R"({"guest_id":")" + std::string(kNeighbour) + R"(","path":")" + disk + "\"}");
  EXPECT_EQ(code(disk), 930);
}

// Texts and numbers

TEST_F(GuestSetHttp, Set_HostileNames_AreRefusedOrStoredUnchanged) {
  const auto name = [](const std::string& text) { return "\"name\":" + json::ToText(Json::Value(text)); };
  ExpectRefused(name(std::string(1'000'000, 'n')), 909);
  EXPECT_EQ(NewestText(), "Failed to edit the virtual machine [web] due to internal read/write error.");
  ExpectRefused(name("two\nlines"), 909);
  ExpectRefused(name(std::string("a\0b", 3)), 909);
  ExpectRefused(name("\x1b[2J"), 909);
  EXPECT_EQ(NewestText(), "Failed to edit the virtual machine [web] due to internal read/write error.");

  const std::string odd = "%n%s%s%1000000d ../../etc/passwd \" \\ é";
  EXPECT_EQ(Code(name(odd)), 0);
  EXPECT_EQ(GuestRecord()["name"], odd);
  EXPECT_EQ(NewestText(), "The virtual machine [web] has been successfully edited and renamed to [" + odd + "].");
  EXPECT_EQ(Code(R"("desc":"%n%n%n\n\u0000")"), 0);
  EXPECT_EQ(NewestText(), "The virtual machine [" + odd + "] has been successfully edited.");
  ClearCapturedSyslog();
  EXPECT_EQ(Code(R"("boot_from":"%n%s%n%s")"), 401);
  ASSERT_EQ(GuestLines().size(), 1u);
  EXPECT_THAT(GuestLines()[0], HasSubstr(R"("boot_from":"%n%s%n%s")"));
  EXPECT_EQ(Code(name(odd)), 0) << "its own name does not conflict";
  EXPECT_EQ(NewestText(), "The virtual machine [" + odd + "] has been successfully edited.");
}

TEST_F(GuestSetHttp, Set_LineEndsInTexts_DoNotSplitLogLines) {
  ClearCapturedSyslog();
  EXPECT_NE(Code(R"("boot_from":"iso\nguest:1 forged\u0000\r")"), 0);
  ASSERT_EQ(GuestLines().size(), 1u);
  EXPECT_THAT(GuestLines()[0], Not(HasSubstr("\n")));
  EXPECT_THAT(GuestLines()[0], HasSubstr(R"(iso\nguest:1 forged\u0000\r)"));
}

TEST_F(GuestSetHttp, Set_LargeNumbers_DoNotWrap) {
  // Times 1024 these would be small, or negative, in 32 bits.
  for (const char* size : {"4194304", "4194305", "2097152", "2147483647"}) {
    ExpectRefused(std::string(R"("vdisks_add":[{"vdisk_size":)") + size + "}]", 909);
    ExpectRefused(std::string(R"("vdisks_edit":[{"vdisk_size":)") + size + R"(,"vdisk_id":")" + kDisk0 + "\"}]", 909);
  }
  for (const char* number : {"2147483647", "-2147483648"}) {
    for (const char* name : {"vcpu_num", "vram_size", "autorun", "cpu_pin_num", "cpu_weight"}) {
      ExpectRefused('"' + std::string(name) + "\":" + number, 909);
    }
    ExpectRefused(std::string("\"usb_version\":") + number, 401);
  }
  for (const char* number : {"2147483648", "-2147483649", "9223372036854775808", "1e400", "1e9", "-0.0"}) {
    const int code = Code(std::string("\"vcpu_num\":") + number);
    EXPECT_TRUE(code == 401 || code == 101 || code == 106) << number << " " << code;
    EXPECT_EQ(Stored(), Initial());
  }
}

TEST_F(GuestSetHttp, Set_LongLists_AreRefusedQuickly) {
  const auto list = [](const char* name, const std::string& element, int count) {
    std::string text = '"' + std::string(name) + "\":[" + element;
    for (int i = 1; i < count; ++i) text += "," + element;
    return text + "]";
  };
  ExpectRefused(list("iso_images", "\"\"", 2'000), 401);
  ExpectRefused(list("iso_images", "\"unmounted\"", 2'000), 909);
  ExpectRefused(list("usbs", "\"1.1\"", 2'000), 909);
  ExpectRefused(list("vdisks_add", R"({"vdisk_size":1})", 1'000), 411);
  ExpectRefused(list("vnics_add", R"({"network_id":"","prefer_sriov":false,"vnic_type":1})", 500), 919);
  ExpectRefused(list("vdisks_del", kGoodDiskId, 1'000), 920);
  ExpectRefused(list("vnics_del", "{}", 2'000), 401);
  // More values than a body may have.
  for (const char* name : {"iso_images", "usbs", "vdisks_del"}) ExpectRefused(list(name, "\"\"", 100'000), 112);
  ExpectRefused(list("vdisks_add", R"({"vdisk_size":1})", 65), 411);
  // Rules for unknown principals: the guest is edited, and one bounded log entry reports them all.
  EXPECT_EQ(Code(list("guest_privilege", R"({"uid":4294967295,"name":"nobody"})", 600)), 1001);
  EXPECT_EQ(NewestText(),
            "Failed to configure permission settings for the user [nobody] on the virtual machine [web].");
  EXPECT_EQ(Stored(), Initial());
}

TEST_F(GuestSetHttp, Bodies_TooLargeOrTooDeep_AreRefusedBeforeHandler) {
  const auto status = [](const std::string& body) {
    HttpClient client = daemon().TcpAs("admin");
    return client.PostJson("/webapi/VEXA.Virtualization.Guest/set", body).status;
  };
  EXPECT_EQ(status(Body("\"name\":\"" + std::string(1 << 20, 'n') + '"')), 413);
  EXPECT_EQ(status(Body("\"usbs\":" + std::string(100'000, '[') + std::string(100'000, ']'))), 413);
  EXPECT_EQ(status(Body("\"usbs\":" + std::string(1'000, '[') + std::string(1'000, ']'))), 400);
  EXPECT_EQ(status(Body("\"usbs\":[" + std::string(63, '[') + std::string(63, ']') + "]")), 400) << "65 levels";
  EXPECT_EQ(status(Body("\"name\":\"a\",\"name\":\"b\"")), 400) << "which of both?";
  EXPECT_EQ(status(Body("\"name\":\"\xff\"")), 400);
  EXPECT_EQ(Stored(), Initial());
  EXPECT_TRUE(GuestLines().empty());
}

TEST_F(GuestSetHttp, Set_DuplicateIds_AreRefusedWhereTheyMatter) {
  const auto twice = [](const char* list, const std::string& element) {
    return '"' + std::string(list) + "\":[" + element + "," + element + "]";
  };
  ExpectRefused(twice("vdisks_del", kGoodDiskId), 920);
  ExpectRefused(twice("vdisks_order", kGoodDiskId), 920);
  ExpectRefused(twice("vnics_del", kGoodNicId), 919);
  EXPECT_EQ(Code(twice("vnics_edit", kGoodNicEdit)), 0);
  EXPECT_EQ(Code(twice("vdisks_edit", kGoodDiskEdit)), 0);
  EXPECT_EQ(GuestRecord()["vdisks"].size(), 2u);
  EXPECT_EQ(GuestRecord()["vnics"].size(), 2u);
  Restore();
  // One file does not grow twice.
  for (const auto& [first, second] : {std::pair("2", "3"), std::pair("3", "2")}) {
    const auto sized = [](const char* gib) {
      return R"({"vdisk_id":")" + std::string(kDisk0) + R"(","vdisk_size":)" + gib + "}";
    };
    ExpectRefused("\"vdisks_edit\":[" + sized(first) + "," + sized(second) + "]", 920);
    EXPECT_EQ(std::filesystem::file_size(DiskPath(kDisk0)), std::uintmax_t{1} << 30);
  }
}

TEST_F(GuestSetHttp, Set_ManyUnknownPrincipals_AreOneBoundedLogEntry) {
  std::string rules;
  for (int i = 0; i < 600; ++i) {
    rules += (i == 0 ? "" : ",") + std::string(R"({"uid":4294967295,"name":"no%n\nbody)") + std::to_string(i) + "\"}";
  }
  EXPECT_EQ(Code("\"guest_privilege\":[" + rules + "]"), 1001);
  const std::string text = NewestText();
  EXPECT_THAT(text, ::testing::StartsWith("Failed to configure permission settings for the user [no%n"));
  EXPECT_THAT(text, Not(HasSubstr("\n")));
  EXPECT_LE(text.size(), 4096u);
  EXPECT_EQ(Stored(), Initial());
}

// Hosts

TEST_F(GuestSetHttp, Action_RepositoryHostUnknown_IsStillSent) {
  const Answer answer = Set("admin", Body(R"("vdisks_add":[{"vdisk_size":1}])", kGuestWithoutRepositoryHost));
  EXPECT_EQ(answer.code, 909) << "in place of 403";
  const std::vector<std::string> lines = GuestLines();
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_EQ(lines[0], std::string("Failed to get host of guest[") + kGuestWithoutRepositoryHost + "]'s repo");
  EXPECT_THAT(lines[1], HasSubstr("Bad response ["));
  EXPECT_THAT(lines[1], HasSubstr(R"("vdisk_size":1024)"));
  EXPECT_EQ(NewestText(), "Failed to edit the virtual machine [homeless] due to internal read/write error.");
  // What refuses later takes its place, too.
  EXPECT_EQ(Set("admin", Body(R"("vdisks_add":[{"vdisk_size":1}],"boot_from":"x")", kGuestWithoutRepositoryHost)).code,
            401);
  EXPECT_EQ(Set("admin", Body(R"("vdisks_add":[],"desc":"without disks")", kGuestWithoutRepositoryHost)).code, 0);
}

TEST_F(GuestSetHttp, Set_HostUnreachable_Is909) {
  Put("repository", kRepository, R"({"name":"pool","host_id":")" + std::string(kUnknownId) + "\"}");
  EXPECT_EQ(Code(R"("vdisks_add":[{"vdisk_size":1}])"), 909);
  EXPECT_EQ(NewestText(), "Failed to edit the virtual machine [web] due to internal read/write error.");
  EXPECT_EQ(Code(R"("desc":"needs no repository")"), 0);
}

// The cluster log

TEST_F(GuestSetHttp, ClusterLog_ContainsUserAndAction) {
  const auto newest = [] {
    const Json::Value entry = NewestEntry();
    return std::to_string(json::Int(entry["priority"])) + " " + json::String(entry["user"]) + ": " +
           json::String(entry["text"]);
  };
  Answer answer = Set("adam", Body(R"("desc":"new")"));
  EXPECT_EQ(newest(), "3 adam: The virtual machine [web] has been successfully edited.");
  EXPECT_EQ(NewestEntry()["request_id"], answer.reply["request_id"]);
  Set("adam", Body(R"("name":"web")"));
  EXPECT_EQ(newest(), "3 adam: The virtual machine [web] has been successfully edited.") << "the name that it has";
  Set("adam", Body(R"("name":"shop")"));
  EXPECT_EQ(newest(), "3 adam: The virtual machine [web] has been successfully edited and renamed to [shop].");
  Set("grace", Body(R"("use_ovmf":true)"));
  EXPECT_EQ(newest(), "3 grace: The virtual machine [shop] has been successfully edited.");

  answer = Set("admin", Body(R"("name":"store","guest_privilege":[{"uid":4294967295,"name":"b"},)"
                             R"({"gid":4294967294,"name":"a"},{"uid":4294967295,"name":"b"}])"));
  EXPECT_EQ(answer.code, 1001);
  EXPECT_EQ(GuestRecord()["name"], "store") << "the edit stays";
  EXPECT_EQ(newest(),
            "1 admin: Failed to configure permission settings for the user [a,b] on the virtual machine [shop].");

  const auto refused = [&](const std::string& members, int code) {
    EXPECT_EQ(Code(members), code) << members;
    return newest();
  };
  const std::string unknown_id = std::string("\"") + kUnknownId + '"';
  EXPECT_EQ(refused(R"("iso_images":["unmounted","unmounted","unmounted"])", 930),
            "1 admin: Failed to edit the virtual machine [store] due to iso images update failure.");
  EXPECT_EQ(refused(R"("vnics_del":[{"vnic_id":)" + unknown_id + "}]", 919),
            "1 admin: Failed to edit the virtual machine [store] due to network configuration error.");
  EXPECT_EQ(refused(R"("vdisks_del":[{"vdisk_id":)" + unknown_id + "}]", 920),
            "1 admin: Failed to edit the virtual machine [store] because the virtual disk cannot be edited.");
  EXPECT_EQ(refused(R"("usbs":["no device"])", 935),
            "1 admin: Failed to do usb passthrough in the virtual machine [store].");
  EXPECT_EQ(refused(R"("usb_version":0,"usbs":["1.1"])", 937),
            "1 admin: Failed to do usb passthrough in the virtual machine [store].");
  EXPECT_EQ(refused(R"("vcpu_num":0)", 909),
            "1 admin: Failed to edit the virtual machine [store] due to internal read/write error.");
  Remove("guest", kTestGuest);
  EXPECT_EQ(refused(R"("vcpu_num":1)", 909),
            "1 admin: Failed to edit the virtual machine [-] due to internal read/write error.");
  EXPECT_TRUE(SyslogContains(std::string("Failed to get guest [") + kTestGuest + "] original name."));
}

}  // namespace
}  // namespace vexa::test
