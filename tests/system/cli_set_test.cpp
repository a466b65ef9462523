// vexa guest set against scripted servers: what is sent, and what is refused before that.
#include <signal.h>

#include "tests/system/cli_api_host.h"
#include "tests/system/cli_program.h"

namespace vexa::test {
namespace {

using std::chrono::seconds;

const std::string kA = "0a000000-0000-4000-8000-00000000000a";
const std::string kB = "0b000000-0000-4000-8000-00000000000b";

const std::string kGuests = R"({"guests":[{"guest_id":"g1","guest_name":"web-1"},{"guest_id":"g2","guest_name":"twin"},
  {"guest_id":"g3","guest_name":"twin"},{"guest_id":"g4","guest_name":"b\u001b[31md\n"}],
  "networks":[{"network_id":"0c000000-0000-4000-8000-00000000000c","name":"lan"},{"network_id":"n2","name":"dup"},
  {"network_id":"n3","name":"dup"}],"images":[{"image_id":"0e000000-0000-4000-8000-00000000000e","name":"debian-12"}]})";
constexpr const char* kSettings =
    "The settings are name, desc, vcpu_num, cpu_pin_num, cpu_weight, cpu_passthru, hyperv_enlighten, vram_size, "
    "video_card, kb_layout, boot_from, use_ovmf, autorun, usb_version";

class GuestSet : public CliTest {
 protected:
  static ApiHost::Answer With(ApiHost::Answer set) {
    return [set = std::move(set)](const std::string& method,
                                  const Json::Value& parameters) -> std::optional<ApiHost::Reply> {
      if (method == "list") return ApiHost::Success(kGuests);
      if (method == "get")
        return ApiHost::Success(R"({"name":"web-1",
          "vdisks":[{"vdisk_id":"0a000000-0000-4000-8000-00000000000a"},{"vdisk_id":"0b000000-0000-4000-8000-00000000000b"}],
          "vnics":[{"vnic_id":"0d000000-0000-4000-8000-00000000000d","mac":"02:00:5e:10:00:aa"}]})");
      return set(method, parameters);
    };
  }
  static ApiHost::Answer SucceedAlways() {
    return With([](const auto&, const auto&) { return ApiHost::Success(); });
  }
  static ApiHost::Answer Refuses(int code, const std::string& details = "") {
    return With([=](const auto&, const auto&) { return ApiHost::Failure(code, "No.", details); });
  }
  ProcessResult RunOn(const ApiHost& host, std::vector<std::string> arguments) {
    SaveLogin(host.url());
    arguments.insert(arguments.begin(), {"guest", "set"});
    return Run(std::move(arguments));
  }
  // What is sent for these words after the guest's id.
  std::string Sent(std::vector<std::string> words) {
    const ApiHost host(SucceedAlways());
    words.insert(words.begin(), "web-1");
    const auto result = RunOn(host, std::move(words));
    EXPECT_EQ(result.exit_code, 0) << result.errors;
    EXPECT_EQ(host.Count("set"), 1);
    if (host.Count("set") != 1) return "";
    Json::Value parameters = Parse(host.Last("set").substr(std::string("set ").size()));
    EXPECT_EQ(parameters["guest_id"], Json::Value("g1"));
    parameters.removeMember("guest_id");
    return VexaVirtualization::json::ToText(parameters);
  }
  // How arguments are refused; no request is sent.
  std::string Refusal(std::vector<std::string> words) {
    const ApiHost host(SucceedAlways());
    words.insert(words.begin(), "web-1");
    const auto result = RunOn(host, std::move(words));
    EXPECT_EQ(result.exit_code, 2) << result.output;
    EXPECT_THAT(result.output, IsEmpty());
    EXPECT_THAT(host.calls(), IsEmpty());
    return result.errors;
  }
};

TEST_F(GuestSet, Set_NowOrNextStart_IsSentAsApply) {
  EXPECT_EQ(Sent({"vcpu_num=4", "--now"}), R"({"apply":"now","vcpu_num":4})");
  EXPECT_EQ(Sent({"vcpu_num=4", "--next-start"}), R"({"apply":"next_start","vcpu_num":4})");
  EXPECT_THAT(Refusal({"vcpu_num=4", "--now", "--next-start"}), HasSubstr("--now excludes --next-start"));
  EXPECT_THAT(Refusal({"--now"}), HasSubstr("Nothing to change is named"));
}

TEST_F(GuestSet, Set_SomethingWaits_NamesIt) {
  const ApiHost host(With([](const std::string& method, const auto&) {
    return ApiHost::Success(method != "status" ? "null" : R"({"pending":[
      {"property":"vram_size","running":1,"recorded":2},{"property":"vdisks","id":"a","running":null,"recorded":{}},
      {"property":"vdisks","id":"b","running":null,"recorded":{}}]})");
  }));
  const auto result = RunOn(host, {"web-1", "vram_size=2"});
  EXPECT_EQ(result.exit_code, 0);
  EXPECT_EQ(result.output, "web-1: edited; waits for its next start: vdisks, vram_size\n");
  // Scripts that print nothing ask nothing.
  EXPECT_EQ(RunOn(host, {"web-1", "vram_size=2", "--quiet"}).output, "");
  EXPECT_EQ(host.Count("status"), 1);
}

class GuestApply : public GuestSet {
 protected:
  ProcessResult Apply(const ApiHost& host, std::vector<std::string> words) {
    SaveLogin(host.url());
    words.insert(words.begin(), {"guest", "apply"});
    return Run(std::move(words));
  }
};

TEST_F(GuestApply, Apply_SomethingStillWaits_PrintsBothValues) {
  const ApiHost host(With([](const auto&, const auto&) {
    return ApiHost::Success(R"({"pending":[{"property":"video_card","running":"vga","recorded":"q\u001bxl"},
      {"property":"vdisks","id":"d1","running":{"path":"/a"},"recorded":null}]})");
  }));
  const auto result = Apply(host, {"web-1"});
  EXPECT_EQ(result.exit_code, 0) << result.errors;
  EXPECT_EQ(result.output,
            "\nWaiting for the next start\nPROPERTY    ID  NOW            NEXT\n"
            "video_card      vga            q\\x1bxl\nvdisks      d1  {\"path\":\"/a\"}  -\n");
  EXPECT_EQ(host.Last("apply"), R"(apply {"guest_id":"g1"})");
}

TEST_F(GuestApply, Apply_WithoutPendingChanges_ReportsThat) {
  const ApiHost host(With([](const auto&, const auto&) { return ApiHost::Success(R"({"pending":[]})"); }));
  EXPECT_EQ(Apply(host, {"web-1", "--force-eject"}).output, "web-1: runs as it is set\n");
  EXPECT_EQ(host.Last("apply"), R"(apply {"force_eject":true,"guest_id":"g1"})");
  EXPECT_EQ(Apply(host, {"web-1", "--json"}).output, "{\n  \"pending\" : []\n}\n");
  EXPECT_EQ(Apply(host, {""}).exit_code, 2);
  const ApiHost refusing(Refuses(911));
  EXPECT_EQ(Apply(refusing, {"web-1"}).exit_code, 1);
}

TEST_F(GuestSet, Set_Settings_AreSentWithTheirTypes) {
  const std::pair<const char*, const char*> rows[] = {
      {"name=web-2", R"({"name":"web-2"})"},
      {"name=1", R"({"name":"1"})"},
      {"desc=", R"({"desc":""})"},
      {"desc=a=b\\nc", R"({"desc":"a=b\\nc"})"},
      {"desc=Caf\xc3\xa9 \"q\"", "{\"desc\":\"Caf\xc3\xa9 \\\"q\\\"\"}"},
      {"vcpu_num=4", R"({"vcpu_num":4})"},
      {"vram_size=8192", R"({"vram_size":8192})"},
      {"video_card=qxl", R"({"video_card":"qxl"})"},
      {"cpu_passthru=true", R"({"cpu_passthru":true})"},
      {"cpu_passthru=no", R"({"cpu_passthru":false})"},
      {"hyperv_enlighten=yes", R"({"hyperv_enlighten":true})"},
      {"use_ovmf=false", R"({"use_ovmf":false})"},
      {"autorun=2", R"({"autorun":2})"},
      {"boot_from=iso", R"({"boot_from":"iso"})"},
      {"usb_version=0", R"({"usb_version":0})"},
      {"kb_layout=en-us", R"({"kb_layout":"en-us"})"},
      {"cpu_pin_num=0", R"({"cpu_pin_num":0})"},
      {"cpu_weight=262144", R"({"cpu_weight":262144})"},
  };
  for (const auto& [word, sent] : rows) EXPECT_EQ(Sent({word}), sent);
}

TEST_F(GuestSet, Set_Options_AreSentUnderApiNames) {
  EXPECT_EQ(Sent({"--add-disk", "20", "--add-disk", "1"}), R"({"vdisks_add":[{"vdisk_size":20},{"vdisk_size":1}]})");
  EXPECT_EQ(Sent({"--del-disk", kA, "--del-disk", kB}),
            R"({"vdisks_del":[{"vdisk_id":")" + kA + R"("},{"vdisk_id":")" + kB + "\"}]}");
  EXPECT_EQ(Sent({"--grow-disk", kA + "=30"}), R"({"vdisks_edit":[{"vdisk_id":")" + kA + R"(","vdisk_size":30}]})");
  EXPECT_EQ(Sent({"--order-disks", kB + "," + kA}),
            R"({"vdisks_order":[{"vdisk_id":")" + kB + R"("},{"vdisk_id":")" + kA + "\"}]}");
  EXPECT_EQ(Sent({"--add-nic", "net=" + kA}),
            R"({"vnics_add":[{"network_id":")" + kA + R"(","prefer_sriov":false,"vnic_type":1}]})");
  EXPECT_EQ(Sent({"--add-nic", "net=none,type=3,mac=02:00:5e:10:00:01,sriov=true", "--add-nic", "net=,type=2"}),
            R"({"vnics_add":[{"mac":"02:00:5e:10:00:01","network_id":"","prefer_sriov":true,"vnic_type":3},)"
            R"({"network_id":"","prefer_sriov":false,"vnic_type":2}]})");
  EXPECT_EQ(Sent({"--add-nic", "net=lan"}), R"({"vnics_add":[{"network_id":"0c000000-0000-4000-8000-00000000000c",)"
                                            R"("prefer_sriov":false,"vnic_type":1}]})");
  EXPECT_EQ(Sent({"--edit-nic", kB + ",net=lan"}),
            R"({"vnics_edit":[{"network_id":"0c000000-0000-4000-8000-00000000000c","vnic_id":")" + kB + "\"}]}");
  EXPECT_EQ(Sent({"--del-nic", kA}), R"({"vnics_del":[{"vnic_id":")" + kA + "\"}]}");
  EXPECT_EQ(Sent({"--edit-nic", kA + ",type=2", "--edit-nic", kB + ",net=" + kA + ",sriov=no"}),
            R"({"vnics_edit":[{"vnic_id":")" + kA + R"(","vnic_type":2},{"network_id":")" + kA +
                R"(","prefer_sriov":false,"vnic_id":")" + kB + "\"}]}");
  EXPECT_EQ(Sent({"--iso", kA, "--iso", "/srv/a b.iso"}), R"({"iso_images":[")" + kA + R"(","/srv/a b.iso"]})");
  EXPECT_EQ(Sent({"--iso", "none"}), R"({"iso_images":["unmounted"]})");
  EXPECT_EQ(Sent({"--iso", ""}), R"({"iso_images":["unmounted"]})");
  EXPECT_EQ(Sent({"--iso", "unmounted"}), R"({"iso_images":["unmounted"]})");
  EXPECT_EQ(Sent({"--usb", "1234:00ab", "--usb", "none", "--usb", "3.14"}),
            R"({"usbs":["1234:00ab","unmounted","3.14"]})");
  EXPECT_EQ(Sent({"--allow", "uid:1026", "--allow", "gid:100", "--revoke", "uid:7"}),
            R"({"guest_privilege":[{"allow":true,"name":"","type":"use","uid":1026},)"
            R"({"allow":true,"gid":100,"name":"","type":"use"},{"allow":false,"name":"","type":"use","uid":7}]})");
}

TEST_F(GuestSet, Set_SeveralChanges_AreOneRequest) {
  EXPECT_EQ(Sent({"vcpu_num=2", "--add-disk", "5", "desc=x", "--iso", "none"}),
            R"({"desc":"x","iso_images":["unmounted"],"vcpu_num":2,"vdisks_add":[{"vdisk_size":5}]})");
}

TEST_F(GuestSet, Set_InvalidSettings_AreReportedAndNothingIsSent) {
  const std::pair<std::vector<std::string>, std::string> rows[] = {
      {{"vcpus=4"}, std::string("There is no setting 'vcpus'; did you mean 'vcpu_num'? ") + kSettings},
      {{"=4"}, std::string("There is no setting ''. ") + kSettings},
      {{"repo_id=x"}, std::string("There is no setting 'repo_id'. ") + kSettings},
      {{"somethingelse=1"}, std::string("There is no setting 'somethingelse'. ") + kSettings},
      {{"guest_id=x"}, std::string("There is no setting 'guest_id'. ") + kSettings},
      {{"vcpu_num"}, "'vcpu_num' is not a setting. Use NAME=VALUE"},
      {{"vcpu_num=2", "vcpu_num=2"}, "The setting 'vcpu_num' is given twice"},
      {{"vcpu_num="}, "'' is not a number, which is required for 'vcpu_num'"},
      {{"vcpu_num=2.0"}, "'2.0' is not a number, which is required for 'vcpu_num'"},
      {{"vcpu_num=99999999999999999999"}, "'99999999999999999999' is not a number, which is required for 'vcpu_num'"},
      {{"vcpu_num=0"}, "The parameter 'vcpu_num' is not a number from 1 to 512: it is 0"},
      {{"vcpu_num=4294967297"}, "The parameter 'vcpu_num' is not a number from 1 to 512: it is 4294967297"},
      {{"vram_size=0"}, "The parameter 'vram_size' is not a number from 1 to 2097151: it is 0"},
      {{"autorun=3"}, "The parameter 'autorun' is not a number from 0 to 2: it is 3"},
      {{"cpu_pin_num=-1"}, "The parameter 'cpu_pin_num' is not a number from 0 to 512: it is -1"},
      {{"cpu_weight=1"}, "The parameter 'cpu_weight' is not a number from 2 to 262144: it is 1"},
      {{"usb_version=-1"}, "The parameter 'usb_version' is not a number from 0 to 3: it is -1"},
      {{"use_ovmf=1"}, "'1' is neither true nor false, one of which is required for 'use_ovmf'"},
      {{"name="}, "The parameter 'name' is not a string of 1 to 128 bytes without control characters: it is ''"},
      {{"name=\xff"}, "The value of 'name' is not valid UTF-8"},
      {{"boot_from=ISO"}, "The parameter 'boot_from' is not 'disk' or 'iso': it is 'ISO'; did you mean 'iso'?"},
      {{"video_card=virtoi"},
       "The parameter 'video_card' is not cirrus, vga, vmvga, qxl or virtio: it is 'virtoi'; did you mean 'virtio'?"},
      {{"video_card=s3"}, "The parameter 'video_card' is not cirrus, vga, vmvga, qxl or virtio: it is 's3'"},
      {{"kb_layout=a b"},
       "The parameter 'kb_layout' is not the name of a keyboard layout such as 'en-us': it is 'a b'"},
      {{"hyperv_enlighten=true", "cpu_passthru=false"}, "The parameter 'hyperv_enlighten' needs 'cpu_passthru'"},
      {{}, "Nothing to change is named; see 'vexa guest set --help'"},
  };
  for (const auto& [words, expected] : rows) EXPECT_EQ(Refusal(words), "vexa: " + expected + "\n");
}

TEST_F(GuestSet, Set_ImageNumberOrMac_IsSentAsId) {
  EXPECT_EQ(Sent({"--iso", "debian-12", "--iso", "none"}),
            R"({"iso_images":["0e000000-0000-4000-8000-00000000000e","unmounted"]})");
  EXPECT_EQ(Sent({"--del-disk", "2"}), R"({"vdisks_del":[{"vdisk_id":")" + kB + "\"}]}");
  EXPECT_EQ(Sent({"--grow-disk", "1=30"}), R"({"vdisks_edit":[{"vdisk_id":")" + kA + R"(","vdisk_size":30}]})");
  EXPECT_EQ(Sent({"--order-disks", "2,1"}),
            R"({"vdisks_order":[{"vdisk_id":")" + kB + R"("},{"vdisk_id":")" + kA + "\"}]}");
  const std::string nic = "0d000000-0000-4000-8000-00000000000d";
  EXPECT_EQ(Sent({"--del-nic", "02:00:5E:10:00:AA"}), R"({"vnics_del":[{"vnic_id":")" + nic + "\"}]}");
  EXPECT_EQ(Sent({"--edit-nic", "1,type=2"}), R"({"vnics_edit":[{"vnic_id":")" + nic + R"(","vnic_type":2}]})");
}

TEST_F(GuestSet, Set_UnknownImageOrNumber_IsNotSent) {
  const ApiHost host(SucceedAlways());
  for (const auto& [words, sentence] :
       {std::pair(std::vector<std::string>{"--iso", "debian"},
                  "There is no image called 'debian'; did you mean 'debian-12'? See 'vexa image list'"),
        std::pair(std::vector<std::string>{"--del-disk", "3"},
                  "The guest has no disk '3'; 'vexa guest get' shows them"),
        std::pair(std::vector<std::string>{"--del-nic", "02:00:5e:10:00:ab"},
                  "The guest has no network interface '02:00:5e:10:00:ab'; 'vexa guest get' shows them")}) {
    std::vector<std::string> all = words;
    all.insert(all.begin(), "web-1");
    const auto result = RunOn(host, all);
    EXPECT_EQ(result.exit_code, 1);
    EXPECT_EQ(result.errors, std::string("vexa: ") + sentence + "\n");
  }
  EXPECT_EQ(host.Count("set"), 0);
}

TEST_F(GuestSet, Set_UnknownOrAmbiguousNetwork_IsNotSent) {
  const ApiHost host(SucceedAlways());
  const auto unknown = RunOn(host, {"web-1", "--add-nic", "net=office"});
  EXPECT_EQ(unknown.exit_code, 1);
  EXPECT_EQ(unknown.errors, "vexa: There is no network called 'office'; see 'vexa network list'\n");
  const auto several = RunOn(host, {"web-1", "--add-nic", "net=dup"});
  EXPECT_EQ(several.exit_code, 1);
  EXPECT_EQ(several.errors,
            "vexa: Several networks are called 'dup'. Use one of the ids n2, n3; 'vexa network list --ids' shows which "
            "is which\n");
  EXPECT_EQ(host.Count("set"), 0);
}

TEST_F(GuestSet, Set_InvalidOptions_AreReportedAndNothingIsSent) {
  const std::string no_size = "' is not a disk size. Use GiB, 1 to 2097151";
  const std::string no_disk = "' is not the id of a disk (a UUID); 'vexa guest get' shows them";
  const std::string no_nic = "' is not the id of a network interface (a UUID); 'vexa guest get' shows them";
  const std::string no_member =
      "' is not a property of an interface. Use net=NETWORK, type=N, mac=ADDRESS or sriov=true";
  const auto unknown = [](const std::string& word) {
    return "Unknown user or group '" + word + "'. Use user:NAME, group:NAME, uid:NUMBER or gid:NUMBER";
  };
  const std::pair<std::vector<std::string>, std::string> rows[] = {
      {{"--add-disk", "0"}, "'0" + no_size},
      {{"--add-disk", "1.5"}, "'1.5" + no_size},
      {{"--add-disk", "20G"}, "'20G" + no_size},
      {{"--add-disk", "2097152"}, "'2097152" + no_size},
      {{"--del-disk", "vda"}, "'vda" + no_disk},
      {{"--del-disk", kA, "--del-disk", kA}, "The disk '" + kA + "' is named twice"},
      {{"--grow-disk", kA}, "'" + kA + "' is not a new disk size. Use ID=GIB"},
      {{"--grow-disk", "vda=20"}, "'vda" + no_disk},
      {{"--grow-disk", kA + "=x"}, "'x" + no_size},
      {{"--grow-disk", kA + "=2", "--grow-disk", kA + "=3"}, "The disk '" + kA + "' is named twice"},
      {{"--order-disks", kA + ","}, "'" + no_disk},
      {{"--order-disks", kA + "," + kA}, "The disk '" + kA + "' is named twice"},
      {{"--add-nic", "type=1"}, "'type=1' does not name a network. Use net=NETWORK or net=none"},
      {{"--add-nic", "net=\xFF"}, "The name of a network is not valid UTF-8"},
      {{"--add-nic", "net=none,speed=1"}, "'speed=1" + no_member},
      {{"--add-nic", "net=none,sriov"}, "'sriov" + no_member},
      {{"--add-nic", "net=none,net=none"}, "'net' is given twice for one interface"},
      {{"--add-nic", "net=none,type=x"}, "'x' is not a number, which is required for 'type'"},
      {{"--add-nic", "net=none,type=4"}, "The parameter 'vnics_add[0].vnic_type' is not a number from 1 to 3: it is 4"},
      {{"--add-nic", "net=none,sriov=1"}, "'1' is neither true nor false, one of which is required for 'sriov'"},
      {{"--add-nic", "net=none,mac=01:00:5e:10:00:01"},
       "The parameter 'vnics_add[0].mac' is not a MAC address of one interface, such as 02:00:5e:10:00:01: it is "
       "'01:00:5e:10:00:01'"},
      {{"--del-nic", "eth0"}, "'eth0" + no_nic},
      {{"--edit-nic", "net=none"}, "'net=none" + no_nic},
      {{"--edit-nic", kA}, "No change of the network interface '" + kA + "' is named"},
      {{"--edit-nic", kA + ",type=1", "--edit-nic", kA + ",type=2"},
       "The network interface '" + kA + "' is named twice"},
      {{"--iso", "none", "--iso", "none", "--iso", "none"}, "The parameter 'iso_images' has more than two images"},
      {{"--usb", "1.x"}, "The parameter 'usbs[0]' is '1.x'. Use the form '1234:00ab' or '3.14', or 'unmounted'"},
      {{"--usb", "1.1", "--usb", "1.2", "--usb", "1.3", "--usb", "1.4", "--usb", "1.5"},
       "The parameter 'usbs' has more than four devices"},
      {{"--allow", "alice"}, unknown("alice")},
      {{"--allow", "user:"}, unknown("user:")},
      {{"--allow", "users:alice"}, unknown("users:alice")},
      {{"--allow", "uid:-1"}, unknown("uid:-1")},
      {{"--allow", "uid:4294967295"}, unknown("uid:4294967295")},
      {{"--allow", "uid:12x"}, unknown("uid:12x")},
      {{"--allow", "uid:7", "--revoke", "uid:7"}, "The rights of 'uid:7' are named twice"},
  };
  for (const auto& [words, expected] : rows) EXPECT_EQ(Refusal(words), "vexa: " + expected + "\n");
}

TEST_F(GuestSet, Set_UnknownOptionsOrMissingValues_AreUsageErrors) {
  for (const std::vector<std::string>& words :
       {std::vector<std::string>{"--add-disk"}, {"--del-disks", kA}, {"--wait", "vcpu_num=1"}, {"--dry-run=maybe"}}) {
    EXPECT_THAT(Refusal(words), HasSubstr("'vexa guest set --help'"));
  }
  EXPECT_EQ(Run({"guest", "set"}).exit_code, 2);
  EXPECT_EQ(Run({"guest", "set", "", "vcpu_num=1"}).errors,
            "vexa: The guest's id or name is empty or not valid UTF-8\n");
}

TEST_F(GuestSet, Set_UnknownOrAmbiguousNames_SendNothing) {
  const ApiHost host(SucceedAlways());
  const auto several = RunOn(host, {"twin", "vcpu_num=1"});
  EXPECT_EQ(several.exit_code, 1);
  EXPECT_EQ(several.errors,
            "vexa: Several guests are called 'twin'. Use one of the ids g2, g3; 'vexa guest list --ids' shows which is "
            "which\n");
  const auto unlisted = RunOn(host, {"web-9", "vcpu_num=1"});
  EXPECT_EQ(unlisted.exit_code, 1);
  EXPECT_EQ(unlisted.errors, "vexa: There is no guest called 'web-9'; did you mean 'web-1'? See 'vexa guest list'\n");
  EXPECT_EQ(host.Count("set"), 0);
}

TEST_F(GuestSet, Set_UnknownUsersAndGroups_SendNothing) {
  // With a store, so that the names are looked for.
  std::filesystem::create_directory(folder_.File("data"));
  ASSERT_EQ(
      Run({"user", "add", "somebody", "--password-stdin", "--data", folder_.File("data")}, "good password\n").exit_code,
      0);
  const ApiHost host(SucceedAlways());
  for (const char* who : {"user:nobody-of-this-name", "group:nobody-of-this-name"}) {
    for (const std::vector<std::string>& where :
         {std::vector<std::string>{"--data", folder_.File("data")}, {"--system"}}) {
      std::vector<std::string> words{"web-1", "vcpu_num=1", "--allow", who};
      words.insert(words.end(), where.begin(), where.end());
      const auto result = RunOn(host, words);
      EXPECT_EQ(result.exit_code, 1) << who;
      EXPECT_THAT(result.errors, StartsWith("vexa: "));
      EXPECT_THAT(result.errors, HasSubstr("nobody-of-this-name"));
    }
  }
  EXPECT_THAT(host.calls(), IsEmpty());
}

TEST_F(GuestSet, Set_UserAndGroupNames_AreResolvedByServer) {
  const ApiHost host(With([](const std::string& method, const Json::Value& parameters) {
    if (method != "level_get") return ApiHost::Success();
    const bool is_staff = parameters["kind"] == "group" && parameters["name"] == "staff";
    if (is_staff) return ApiHost::Success(R"({"kind":"group","id":1026,"name":"staff","level":"user"})");
    if (parameters["name"] == "odd") return ApiHost::Success(R"({"id":-1})");
    return ApiHost::Failure(parameters["name"] == "bob" ? 980 : 104, "No.");
  }));
  EXPECT_EQ(RunOn(host, {"web-1", "--revoke", "group:staff"}).exit_code, 0);
  EXPECT_THAT(host.Last("set"),
              HasSubstr(R"("guest_privilege":[{"allow":false,"gid":1026,"name":"staff","type":"use"}])"));
  const int sent = host.Count("set");
  EXPECT_THAT(RunOn(host, {"web-1", "--allow", "user:bob"}).errors, StartsWith("vexa: user:bob: No (980)."));
  EXPECT_THAT(RunOn(host, {"web-1", "--allow", "user:carol"}).errors, HasSubstr("Use uid:NUMBER or gid:NUMBER"));
  EXPECT_THAT(RunOn(host, {"web-1", "--allow", "user:odd"}).errors, HasSubstr("contains no id"));
  EXPECT_EQ(RunOn(host, {"web-1", "--allow", "group:staff", "--revoke", "gid:1026"}).exit_code, 2);
  EXPECT_EQ(host.Count("set"), sent);
}

// Other changes of the same call, and revoking, do not depend on the damaged record.
TEST_F(GuestSet, Allow_UserWithDamagedGrants_IsLookedUpInUserList) {
  const ApiHost host(With([](const std::string& method, const Json::Value&) {
    if (method == "level_get") return ApiHost::Failure(985, "A record cannot be understood.");
    if (method == "user_list") return ApiHost::Success(R"({"users":[null,{"name":"Alice","uid":1026}]})");
    if (method == "group_list") return ApiHost::Success(R"({"groups":[{"name":"staff","gid":7}]})");
    return ApiHost::Success();
  }));
  const auto result = RunOn(host, {"web-1", "--allow", "user:alice", "--revoke", "group:staff"});
  EXPECT_EQ(result.exit_code, 0) << result.errors;
  EXPECT_THAT(host.Last("set"), AllOf(HasSubstr(R"("uid":1026)"), HasSubstr(R"("gid":7)")));
  EXPECT_EQ(RunOn(host, {"web-1", "--allow", "user:bob"}).exit_code, 1);
  EXPECT_EQ(host.Count("set"), 1);
}

TEST_F(GuestSet, Allow_SystemUser_IsFoundWithSystemOption) {
  EXPECT_EQ(Sent({"--system", "--allow", "user:root", "--revoke", "group:root"}),
            R"({"guest_privilege":[{"allow":true,"name":"root","type":"use","uid":0},)"
            R"({"allow":false,"gid":0,"name":"root","type":"use"}]})");
}

// What comes of it.

TEST_F(GuestSet, Set_Succeeds_PrintsOneLine) {
  const ApiHost host(SucceedAlways());
  EXPECT_EQ(RunOn(host, {"web-1", "vcpu_num=1"}).output, "web-1: edited\n");
  EXPECT_EQ(RunOn(host, {"g1", "name=web-1"}).output, "web-1: edited\n");
  EXPECT_EQ(RunOn(host, {"g1", "name=web\xe2\x80\xae"}).output, "web-1: edited and renamed to web\\u{202e}\n");
  EXPECT_EQ(RunOn(host, {"g4", "vcpu_num=1"}).output, "b\\x1b[31md\\n: edited\n");
  EXPECT_EQ(RunOn(host, {"-q", "web-1", "vcpu_num=1"}).output, "");
}

TEST_F(GuestSet, Set_Json_ContainsOutcome) {
  const ApiHost well(SucceedAlways());
  EXPECT_EQ(Parse(RunOn(well, {"--json", "web-1", "vcpu_num=1"}).output),
            Parse(R"({"guest_id":"g1","guest_name":"web-1","success":true,"message":"edited"})"));
  const ApiHost badly(Refuses(920));
  const auto result = RunOn(badly, {"--json", "web-1", "vcpu_num=1"});
  EXPECT_EQ(result.exit_code, 1);
  EXPECT_EQ(Parse(result.output), Parse(R"-({"guest_id":"g1","guest_name":"web-1","success":false,"code":920,
      "message":"No (920)."})-"));
}

TEST_F(GuestSet, Set_Refusals_ShowCodeAndDetails) {
  for (const int code : {401, 403, 406, 407, 409, 411, 413, 909, 919, 920, 926, 930, 934, 935, 937, 943, 946, 1001}) {
    const ApiHost host(Refuses(code));
    const auto result = RunOn(host, {"web-1", "vcpu_num=1"});
    EXPECT_EQ(result.exit_code, 1);
    EXPECT_EQ(result.errors, "vexa: web-1: No (" + std::to_string(code) + ").\n");
    EXPECT_THAT(result.output, IsEmpty());
  }
  const ApiHost hosts(Refuses(1600, R"(,"details":{"host_names":"nas-1, na\u001bs-2"})"));
  EXPECT_EQ(RunOn(hosts, {"web-1", "vcpu_num=1"}).errors,
            "vexa: web-1: No (1600).\n"
            "  Details: {\"host_names\":\"nas-1, na\\u001bs-2\"}\n");
  const ApiHost address(Refuses(910, R"(,"details":{"guest":"db"})"));
  EXPECT_EQ(RunOn(address, {"web-1", "vcpu_num=1"}).errors, "vexa: web-1: No (910).\n  Details: {\"guest\":\"db\"}\n");
}

TEST_F(GuestSet, DryRun_PrintsTheRequestAndSendsNothing) {
  const ApiHost host(SucceedAlways());
  const auto result = RunOn(host, {"web-1", "vcpu_num=4", "--add-disk", "2", "--dry-run"});
  EXPECT_EQ(result.exit_code, 0) << result.errors;
  EXPECT_EQ(Parse(result.output), Parse(R"({"guest_id":"g1","vcpu_num":4,"vdisks_add":[{"vdisk_size":2}]})"));
  EXPECT_EQ(result.errors,
            "vexa: web-1: Nothing was changed, as this is a dry run. What only the guest's host can check was not "
            "checked.\n");
  EXPECT_EQ(host.Count("get"), 1);
  EXPECT_EQ(host.Count("set"), 0);
  EXPECT_EQ(RunOn(host, {"web-1", "vcpu_num=0", "--dry-run"}).exit_code, 2);
  EXPECT_EQ(RunOn(host, {"web-9", "vcpu_num=1", "--dry-run"}).exit_code, 1);
  EXPECT_EQ(host.Count("set"), 0);
}

TEST_F(GuestSet, DryRun_ChecksAgainstGuestsParts) {
  const std::string data =
      R"({"vdisks":[7,{"vdisk_id":")" + kA + R"(","size":"3072"}],"vnics":[{"vnic_id":")" + kB + "\"}]}";
  const ApiHost host([&](const std::string& method, const Json::Value&) {
    return ApiHost::Success(method == "list" ? kGuests : data);
  });
  const auto dry = [&](const std::string& option, const std::string& value) {
    return RunOn(host, {"web-1", "--dry-run", option, value});
  };
  for (const auto& [option, value] : {std::pair<std::string, std::string>("--del-disk", kA),
                                      {"--grow-disk", kA + "=3"},
                                      {"--order-disks", kA},
                                      {"--del-nic", kB},
                                      {"--edit-nic", kB + ",type=2"}}) {
    EXPECT_EQ(dry(option, value).exit_code, 0) << option;
  }
  const std::tuple<std::string, std::string, std::string> rows[] = {
      {"--del-disk", kB, "The guest has no disk '" + kB + "'"},
      {"--grow-disk", kB + "=4", "The guest has no disk '" + kB + "'"},
      {"--grow-disk", kA + "=2", "The disk '" + kA + "' has 3072 MiB, and disks do not shrink"},
      {"--order-disks", kA + "," + kB, "The guest has no disk '" + kB + "'"},
      {"--del-nic", kA, "The guest has no network interface '" + kA + "'"},
      {"--edit-nic", kA + ",type=2", "The guest has no network interface '" + kA + "'"},
  };
  for (const auto& [option, value, expected] : rows) {
    const auto result = dry(option, value);
    EXPECT_EQ(result.exit_code, 1);
    EXPECT_EQ(result.errors, "vexa: " + expected + "\n");
    EXPECT_THAT(result.output, IsEmpty());
  }
  EXPECT_EQ(host.Count("set"), 0);
}

TEST_F(GuestSet, DryRun_GuestUnreadable_Fails) {
  for (const char* data : {"", "7"}) {
    const std::string text = data;
    const ApiHost host([&](const std::string& method, const Json::Value&) {
      if (method == "list") return ApiHost::Success(kGuests);
      return text.empty() ? ApiHost::Failure(409, "You may not.") : ApiHost::Success(text);
    });
    const auto result = RunOn(host, {"web-1", "vcpu_num=4", "--dry-run"});
    EXPECT_EQ(result.exit_code, 1);
    EXPECT_THAT(result.errors,
                StartsWith(text.empty() ? "vexa: You may not (409)." : "vexa: The server's reply contains no guest"));
    EXPECT_THAT(result.output, IsEmpty());
    EXPECT_EQ(host.Count("set"), 0);
  }
}

TEST_F(GuestSet, Set_Timeout_IsAsGiven) {
  ApiHost host(With([](const auto&, const auto&) { return std::nullopt; }));
  const auto result = RunOn(host, {"--timeout", "1", "web-1", "vcpu_num=1"});
  EXPECT_EQ(result.exit_code, 3);
  EXPECT_THAT(result.errors, StartsWith("vexa: web-1: No reply from "));
}

TEST_F(GuestSet, Set_Interrupt_EndsImmediatelyWithMessage) {
  ApiHost host(With([](const auto&, const auto&) { return std::nullopt; }));
  SaveLogin(host.url());
  Process program(Program({"guest", "set", "web-1", "vcpu_num=1"}));
  ASSERT_TRUE(Eventually([&] { return host.held() == 1; }));
  program.Signal(SIGINT);
  const auto ended = program.Wait(seconds(30));
  ASSERT_TRUE(ended);
  EXPECT_EQ(ended->code, 130);
  EXPECT_EQ(program.errors(), "vexa: web-1: Interrupted after the request was sent and before it was answered.\n");
}

TEST_F(GuestSet, NoServer_IsUnreachable) {
  const auto result = Run({"guest", "set", "web-1", "vcpu_num=1"});
  EXPECT_EQ(result.exit_code, 3);
}

TEST_F(GuestSet, Help_ListsUnitsAndAllSettings) {
  EXPECT_THAT(Run({"guest", "set", "--help"}).output,
              AllOf(HasSubstr("Sizes of disks are in GiB"), HasSubstr("memory in MiB"), HasSubstr("hyperv_enlighten="),
                    HasSubstr("--dry-run"), HasSubstr("waits for its next start")));
}

}  // namespace
}  // namespace vexa::test
