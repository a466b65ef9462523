// Every parameter of an edit, absent, valid, of a wrong type and refused, by every kind of user, over HTTP.
//
// What is expected follows from the table below: a parameter of a wrong type, or that its own check refuses, gives 401
// to every caller, even one without rights. Rights are checked next (409), then everything else, for all callers alike.
#include <gtest/gtest.h>

#include <filesystem>
#include <vector>

#include "host/base/guest_settings.h"
#include "json/readers.h"
#include "tests/support/test_host.h"
#include "tests/system/guest_set_fixture.h"

namespace vexa::test {
namespace {

enum class Type { kString, kInt, kBool, kArray };
// Whether a user who was granted the guest, and is neither administrator nor advanced, may set it.
enum class Granted { kYes, kNo, kOnlyEmpty };
// Who looks at the value: the form before all rights, or a later check.
enum class Stage { kForm, kLater };

struct Refused {
  std::string members;
  Stage stage;
  int code;
};

struct Row {
  std::string name;
  Type type;
  Granted granted;
  std::string valid;  // a JSON value
  std::vector<Refused> refused;
};

std::string Member(const std::string& name, const std::string& value) { return '"' + name + "\":" + value; }

std::vector<std::string> WrongValues(Type type) {
  switch (type) {
    case Type::kString:
      return {"7", "null", "true", "[]", "{}"};
    case Type::kInt:
      return {"\"7\"", "2.5", "2.0", "null", "true", "[]", "99999999999", "-2147483649"};
    case Type::kBool:
      return {"1", "0", "\"true\"", "null", "[]"};
    case Type::kArray:
      return {"{}", "\"x\"", "null", "0", "false"};
  }
  return {};
}

std::vector<Row> Rows(const std::string& image_folder, std::uint32_t user) {
  const auto later = [](const std::string& name, const std::string& value, int code) {
    return Refused{Member(name, value), Stage::kLater, code};
  };
  const auto form = [](const std::string& name, const std::string& value) {
    return Refused{Member(name, value), Stage::kForm, 401};
  };
  const std::string unknown_id = std::string("\"") + kUnknownId + '"';
  const auto of_id = [](const char* member, const std::string& id) {
    return std::string("[{\"") + member + "\":\"" + id + "\"}]";
  };
  const Refused both{R"("hyperv_enlighten":true,"cpu_passthru":false)", Stage::kLater, 401};
  using enum Type;
  using enum Granted;
  // What is 909 is refused by the host that edits, which looks at values that the form lets through.
  return {
      {"name", kString, kNo, "\"new name\"", {form("name", "\"\""), later("name", "\"db\"", 406)}},
      {"vcpu_num", kInt, kNo, "4", {later("vcpu_num", "0", 909), later("vcpu_num", "-1", 909)}},
      {"vram_size", kInt, kNo, "1024", {later("vram_size", "0", 909), later("vram_size", "2147483647", 909)}},
      {"video_card", kString, kNo, "\"qxl\"", {later("video_card", "\"none\"", 909)}},
      {"repo_id", kString, kNo, unknown_id, {form("repo_id", "\"pool\""), form("repo_id", "\"\"")}},
      {"desc", kString, kNo, "\"\"", {later("desc", '"' + std::string(70'000, 'd') + '"', 909)}},
      {"cpu_passthru", kBool, kNo, "false", {both}},
      {"autorun", kInt, kNo, "2", {later("autorun", "3", 909)}},
      {"boot_from", kString, kNo, "\"iso\"", {later("boot_from", "\"ISO\"", 401), later("boot_from", "\"\"", 401)}},
      {"use_ovmf", kBool, kYes, "true", {}},
      {"vnics_add",
       kArray,
       kNo,
       R"([{"network_id":"","prefer_sriov":false,"vnic_type":1}])",
       {later("vnics_add", "[7]", 401),
        later("vnics_add", R"([{"network_id":)" + unknown_id + R"(,"prefer_sriov":false,"vnic_type":1}])", 919)}},
      {"vnics_del",
       kArray,
       kNo,
       of_id("vnic_id", kNic0),
       {later("vnics_del", "[{}]", 401), later("vnics_del", of_id("vnic_id", kUnknownId), 919)}},
      {"vnics_edit",
       kArray,
       kNo,
       R"([{"vnic_id":")" + std::string(kNic1) + R"(","network_id":")" + kNetwork + R"("}])",
       {later("vnics_edit", R"([{"network_id":""}])", 401),
        later("vnics_edit", R"([{"network_id":"","vnic_id":)" + unknown_id + "}]", 919)}},
      {"vdisks_add",
       kArray,
       kOnlyEmpty,
       R"([{"vdisk_size":1}])",
       {later("vdisks_add", R"([{"vdisk_size":0}])", 401), later("vdisks_add", R"([{"vdisk_size":2147483647}])", 909)}},
      {"vdisks_del",
       kArray,
       kOnlyEmpty,
       of_id("vdisk_id", kDisk0),
       {later("vdisks_del", "[{}]", 401), later("vdisks_del", of_id("vdisk_id", kUnknownId), 920)}},
      {"vdisks_edit",
       kArray,
       kOnlyEmpty,
       R"([{"vdisk_size":2,"vdisk_id":")" + std::string(kDisk1) + R"("}])",
       {later("vdisks_edit", R"([{"vdisk_size":2}])", 401),
        later("vdisks_edit", R"([{"vdisk_size":2,"vdisk_id":)" + unknown_id + "}]", 920)}},
      {"vdisks_order",
       kArray,
       kOnlyEmpty,
       of_id("vdisk_id", kDisk1),
       {later("vdisks_order", "[null]", 401), later("vdisks_order", of_id("vdisk_id", kUnknownId), 920)}},
      {"guest_privilege",
       kArray,
       kNo,
       R"([{"allow":true,"type":"local","name":"mallory","uid":)" + std::to_string(user) + "}]",
       {later("guest_privilege", R"([{"allow":true,"type":"local","name":"nobody","uid":4294967295}])", 1001)}},
      {"iso_images",
       kArray,
       kYes,
       "[\"" + image_folder + "/isos/tools.iso\",\"" + kImage + "\"]",
       {later("iso_images", "[5]", 401), later("iso_images", "[" + unknown_id + "]", 401),
        later("iso_images", "[\"/none/none.iso\"]", 934)}},
      {"usb_version", kInt, kNo, "3", {later("usb_version", "4", 401), later("usb_version", "-1", 401)}},
      {"usbs",
       kArray,
       kNo,
       R"(["1234:00ab"])",
       {later("usbs", R"(["no device"])", 935), later("usbs", R"(["1.1","1.2","1.3","1.4","1.5"])", 937)}},
      {"hyperv_enlighten", kBool, kNo, "true", {both}},
      {"kb_layout", kString, kNo, "\"de-ch\"", {later("kb_layout", "\"; rm\"", 909)}},
      {"cpu_pin_num", kInt, kNo, "1", {later("cpu_pin_num", "3", 909), later("cpu_pin_num", "-1", 909)}},
      {"cpu_weight", kInt, kNo, "512", {later("cpu_weight", "1", 909)}},
  };
}

struct Role {
  const char* name;
  bool may_all;
  bool is_granted;
};
constexpr Role kRoles[] = {
    {"admin", true, false}, {"adam", true, false},     {"grace", false, true},
    {"carol", false, true}, {"mallory", false, false},
};

class GuestSetMatrix : public GuestSetFixture {
 protected:
  // Sends it, looks at the answer and its lines, and has everything as it was before.
  static void ExpectRefusal(const Role& role, const std::string& body, int code) {
    ClearCapturedSyslog();
    const std::size_t entries = LogEntries();
    const Answer answer = Set(role.name, body);
    EXPECT_EQ(answer.code, code) << role.name << " " << body.substr(0, 300) << json::ToText(answer.reply);
    EXPECT_TRUE(answer.details.isNull()) << json::ToText(answer.details);
    EXPECT_EQ(Stored(), Initial()) << role.name << " " << body.substr(0, 300);
    const std::vector<std::string> lines = GuestLines();
    if (code == 409) {
      ASSERT_EQ(lines.size(), 1u);
      EXPECT_EQ(lines[0],
                std::string("Action on guest[") + kTestGuest + "] is not allowed from user[" + role.name + "]");
    } else if (code != 1001) {
      EXPECT_EQ(lines.size(), 1u) << "one line for each refusal, " << body.substr(0, 300);
    }
    // Who is refused before anybody is asked leaves no entry; who is refused by the host, one.
    const bool was_asked = code != 401 && code != 409 && code != 406 && code != 934;
    EXPECT_EQ(LogEntries() - entries, was_asked ? 1u : 0u) << body.substr(0, 300);
    Restore();
  }
  static void ExpectSuccess(const Role& role, const std::string& body) {
    ClearCapturedSyslog();
    const std::size_t entries = LogEntries();
    const Answer answer = Set(role.name, body);
    EXPECT_EQ(answer.code, 0) << role.name << " " << body << json::ToText(answer.reply);
    EXPECT_TRUE(json::Member(answer.reply, "data").isNull());
    EXPECT_TRUE(GuestLines().empty()) << GuestLines()[0];
    EXPECT_EQ(LogEntries() - entries, 1u);
  }
  static std::vector<Row> AllRows() { return Rows(ImageFolder(), UserId("mallory")); }
};

TEST_F(GuestSetMatrix, Rows_OfMatrix_CoverAllSettings) {
  std::vector<std::string> names;
  for (const Row& row : AllRows()) names.push_back(row.name);
  std::vector<std::string> expected;
  for (const GuestSetting& setting : kGuestSettings) expected.emplace_back(setting.name);
  EXPECT_EQ(names, expected);
}

TEST_F(GuestSetMatrix, Set_OnlyId_RequiresEditRight) {
  for (const Role& role : kRoles) {
    if (role.may_all || role.is_granted) {
      ExpectSuccess(role, Body(""));
      EXPECT_EQ(Stored(), Initial());
    } else {
      ExpectRefusal(role, Body(""), 409);
    }
  }
}

TEST_F(GuestSetMatrix, Set_InvalidId_IsReportedBeforeRights) {
  for (const Role& role : kRoles) {
    ExpectRefusal(role, "{}", 401);
    for (const char* wrong : {"7", "null", "true", "[]", "{}", "\"\"", "\"web\"", "\"../8f14e45f\"", "[\"x\"]"}) {
      ExpectRefusal(role, Member("guest_id", wrong).insert(0, "{") + "}", 401);
    }
    // A guest that does not exist: administrators get the host's answer, others learn nothing.
    const Answer answer = Set(role.name, Body("", kUnknownId));
    EXPECT_EQ(answer.code, role.may_all ? 909 : 409);
  }
  EXPECT_EQ(ErrorCode(daemon().Tcp().PostJson("/webapi/VEXA.Virtualization.Guest/set", Body(""))), 103);
}

TEST_F(GuestSetMatrix, Set_WrongTypes_AreRefusedBeforeRights) {
  for (const Row& row : AllRows()) {
    SCOPED_TRACE(row.name);
    for (const Role& role : kRoles) {
      for (const std::string& wrong : WrongValues(row.type)) ExpectRefusal(role, Body(Member(row.name, wrong)), 401);
    }
  }
}

TEST_F(GuestSetMatrix, Set_InvalidValues_AreRefusedInDocumentedOrder) {
  for (const Row& row : AllRows()) {
    SCOPED_TRACE(row.name);
    for (const Role& role : kRoles) {
      for (const Refused& refused : row.refused) {
        const bool may = role.may_all || (role.is_granted && row.granted == Granted::kYes);
        const int code = refused.stage == Stage::kForm || may ? refused.code : 409;
        ExpectRefusal(role, Body(refused.members), code);
      }
    }
  }
}

TEST_F(GuestSetMatrix, Set_ValidValues_RequireRights) {
  for (const Row& row : AllRows()) {
    SCOPED_TRACE(row.name);
    for (const Role& role : kRoles) {
      const std::string body = Body(Member(row.name, row.valid));
      if (!role.may_all && !(role.is_granted && row.granted == Granted::kYes)) {
        ExpectRefusal(role, body, 409);
        continue;
      }
      ExpectSuccess(role, body);
      if (row.name == "repo_id") {
        EXPECT_EQ(Stored(), Initial()) << "it is checked and never sent";
      } else {
        EXPECT_NE(Stored(), Initial());
      }
      if (row.type != Type::kArray && row.name != "repo_id") {
        EXPECT_EQ(json::ToText(GuestRecord()[row.name]), row.valid);
      }
      Restore();
    }
  }
}

TEST_F(GuestSetMatrix, Set_EmptyLists_GrantedUserMaySetDiskListsOnly) {
  for (const Row& row : AllRows()) {
    if (row.type != Type::kArray) continue;
    SCOPED_TRACE(row.name);
    for (const Role& role : kRoles) {
      const std::string body = Body(Member(row.name, "[]"));
      if (role.may_all || (role.is_granted && row.granted != Granted::kNo)) {
        ExpectSuccess(role, body);
        Restore();
      } else {
        ExpectRefusal(role, body, 409);
      }
    }
  }
  ExpectSuccess({"grace", false, true}, Body(R"("vdisks_add":[],"vdisks_del":[],"vdisks_edit":[],"vdisks_order":[],)"
                                             R"("use_ovmf":true,"iso_images":["unmounted"])"));
  EXPECT_EQ(GuestRecord()["use_ovmf"], true);
}

// One that may be set beside one that may not changes nothing.
TEST_F(GuestSetMatrix, Set_GrantedUser_ForbiddenMember_ChangesNothing) {
  for (const Row& row : AllRows()) {
    if (row.granted == Granted::kYes) continue;
    ExpectRefusal({"grace", false, true}, Body(R"("use_ovmf":true,)" + Member(row.name, row.valid)), 409);
  }
}

TEST_F(GuestSetMatrix, Set_Lists_ChangeRecordsAndFiles) {
  const auto set = [](const std::string& members) {
    Restore();
    EXPECT_EQ(Set("adam", Body(members)).code, 0) << members;
    return GuestRecord();
  };
  Json::Value guest = set(R"("vdisks_add":[{"vdisk_size":3}])");
  ASSERT_EQ(guest["vdisks"].size(), 3u);
  const Json::Value disk = Record("vdisk", json::String(guest["vdisks"][2]));
  EXPECT_EQ(disk["size"], 3 * 1024) << "GiB of the API, MiB of the hosts";
  EXPECT_TRUE(std::filesystem::exists(json::String(disk["path"])));

  guest = set(R"("vdisks_del":[{"vdisk_id":")" + std::string(kDisk0) + "\"}]");
  EXPECT_EQ(guest["vdisks"], Parsed(std::string("[\"") + kDisk1 + "\"]"));
  EXPECT_FALSE(std::filesystem::exists(DiskPath(kDisk0)));

  guest = set(R"("vdisks_edit":[{"vdisk_size":2,"vdisk_id":")" + std::string(kDisk1) + "\"}]");
  EXPECT_EQ(Record("vdisk", kDisk1)["size"], 2048);
  EXPECT_EQ(std::filesystem::file_size(DiskPath(kDisk1)), std::uintmax_t{2} << 30);

  guest = set(R"("vdisks_order":[{"vdisk_id":")" + std::string(kDisk1) + "\"}]");
  EXPECT_EQ(guest["vdisks"], Parsed(std::string("[\"") + kDisk1 + "\",\"" + kDisk0 + "\"]"));

  guest = set(R"("vnics_add":[{"network_id":"","prefer_sriov":true,"vnic_type":2,"mac":"02:00:00:00:00:77"}])");
  ASSERT_EQ(guest["vnics"].size(), 3u);
  EXPECT_EQ(Record("vnic", json::String(guest["vnics"][2]))["mac_address"], "02:00:00:00:00:77");

  guest = set(R"("vnics_del":[{"vnic_id":")" + std::string(kNic0) + "\"}]");
  EXPECT_EQ(guest["vnics"], Parsed(std::string("[\"") + kNic1 + "\"]"));

  guest = set(R"("vnics_edit":[{"vnic_id":")" + std::string(kNic1) + R"(","network_id":")" + kNetwork + "\"}]");
  EXPECT_EQ(Record("vnic", kNic1)["network_group_id"], kNetwork);

  guest = set(R"("iso_images":[")" + ImageFolder() + R"(/isos/tools.iso","unmounted"])");
  EXPECT_EQ(guest["iso_images"][0], ImageFolder() + "/isos/tools.iso") << "below the daemon's own image folder";
  guest = set(R"("usbs":["3.14"])");
  EXPECT_EQ(guest["usbs"][0], "3.14");
}

TEST_F(GuestSetMatrix, Privileges_Changed_ApplyFromNextCall) {
  const std::string uid = std::to_string(UserId("mallory"));
  const auto grant = [&](const char* allow) {
    return Set("admin", Body(R"("guest_privilege":[{"type":"local","name":"mallory","uid":)" + uid + R"(,"allow":)" +
                             allow + "}]"))
        .code;
  };
  EXPECT_EQ(Set("mallory", Body(R"("use_ovmf":true)")).code, 409);
  EXPECT_EQ(grant("true"), 0);
  EXPECT_EQ(Set("mallory", Body(R"("use_ovmf":true)")).code, 0);
  EXPECT_EQ(Set("mallory", Body(R"("desc":"mine")")).code, 409);
  EXPECT_EQ(grant("false"), 0);
  EXPECT_EQ(Set("mallory", Body(R"("use_ovmf":false)")).code, 409);
}

}  // namespace
}  // namespace vexa::test
