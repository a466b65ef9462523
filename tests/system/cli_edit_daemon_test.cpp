// vexa guest set and edit, and vexa image, against a real host: what is stored in the end.
#include <unistd.h>

#include <fstream>
#include <set>

#include "host/records/guest_admin.h"
#include "tests/support/setting_values.h"
#include "tests/system/cli_guest_host.h"

namespace vexa::test {
namespace {

namespace fs = std::filesystem;

class EditOnDaemon : public CliGuestHostTest {
 protected:
  ProcessResult Set(std::vector<std::string> words) {
    words.insert(words.begin(), {"guest", "set", kEdited});
    return RunOn(std::move(words));
  }
  void ExpectSet(std::vector<std::string> words, const std::string& expected = "web: edited\n") {
    const auto result = Set(std::move(words));
    EXPECT_EQ(result.exit_code, 0);
    EXPECT_EQ(result.output, expected);
    EXPECT_THAT(result.errors, IsEmpty());
  }
  void ExpectRefused(std::vector<std::string> words, const std::string& expected, const std::string& shown = "web") {
    const std::string before = Everything();
    const auto result = Set(std::move(words));
    EXPECT_EQ(result.exit_code, 1);
    EXPECT_THAT(result.errors, StartsWith("vexa: " + shown + ": " + expected));
    EXPECT_THAT(result.output, IsEmpty());
    EXPECT_EQ(Everything(), before);
  }
  ProcessResult Image(std::vector<std::string> words) {
    words.insert(words.begin(), "image");
    return RunOn(std::move(words));
  }

  Json::Value Guest() const { return RecordOf(*store_, "guest", kEdited); }
  // All that an edit could change, with revisions, and all files of disks.
  std::string Everything() const {
    std::string all;
    const auto snapshot = Require(store_->Read());
    for (const char* category : {"guest", "vdisk", "vnic", "guest_admin", "image"}) {
      for (const std::string& id : Require(snapshot->Children(store::MakeKey({"dash", category})))) {
        const auto value = Require(snapshot->Get(KeyOf(category, id)));
        if (value) all += id + " " + std::to_string(value->revision) + " " + std::string(value->text) + "\n";
      }
    }
    for (const auto& [name, size] : environment_.Images()) all += name + " " + std::to_string(size) + "\n";
    return all;
  }
  std::string MakeImageFile(const std::string& name) const {
    std::ofstream(ImageFolder() + "/" + name) << "twelve bytes";
    return ImageFolder() + "/" + name;
  }
  std::uint32_t UidOf(const std::string& name) const { return Require(daemon_->Accounts()->FindUser(name)).uid; }
  bool HasGrant(const std::string& user) const {
    const auto text = TextOf(*store_, records::GuestAdminKey(records::GuestAdminIdentifier("users", UidOf(user))));
    return text && Parsed(*text)["guests"].isMember(kEdited);
  }
};

TEST_F(EditOnDaemon, Set_EverySetting_IsStored) {
  const std::tuple<const char*, const char*, Json::Value> rows[] = {
      {"desc=The shop", "desc", "The shop"},
      {"desc=", "desc", ""},
      {"vcpu_num=4", "vcpu_num", 4},
      {"vram_size=1024", "vram_size", 1024},
      {"video_card=virtio", "video_card", "virtio"},
      {"cpu_passthru=true", "cpu_passthru", true},
      {"autorun=1", "autorun", 1},
      {"boot_from=iso", "boot_from", "iso"},
      {"use_ovmf=yes", "use_ovmf", true},
      {"usb_version=3", "usb_version", 3},
      {"hyperv_enlighten=true", "hyperv_enlighten", true},
      {"kb_layout=de", "kb_layout", "de"},
      {"cpu_pin_num=1", "cpu_pin_num", 1},
      {"cpu_weight=512", "cpu_weight", 512},
  };
  std::set<std::string> members{"name"};
  for (const auto& [word, member, value] : rows) {
    ExpectSet({word});
    EXPECT_EQ(Guest()[member], value) << word;
    members.insert(member);
  }
  for (const GuestSetting* setting : ScalarSettings()) EXPECT_TRUE(members.contains(setting->name)) << setting->name;
  ExpectSet({"name=shop"}, "web: edited and renamed to shop\n");
  EXPECT_EQ(Guest()["name"], Json::Value("shop"));
  EXPECT_THAT(RunOn({"guest", "get", kEdited}).output,
              AllOf(HasSubstr("Memory             1 GiB"), HasSubstr("Virtual CPUs       4")));
}

TEST_F(EditOnDaemon, Disks_AreAddedGrownOrderedAndRemoved) {
  ExpectSet({"--add-disk", "2", "--grow-disk", std::string(kDisk0) + "=1"});
  ASSERT_EQ(Guest()["vdisks"].size(), 3u);
  const std::string added = Guest()["vdisks"][2].asString();
  EXPECT_EQ(RecordOf(*store_, "vdisk", added)["size"], Json::Value(2048));
  EXPECT_EQ(RecordOf(*store_, "vdisk", kDisk0)["size"], Json::Value(1024));
  EXPECT_EQ(environment_.Images()[added + ".qcow2"], 2048LL << 20);
  EXPECT_EQ(environment_.Images()[std::string(kDisk0) + ".qcow2"], 1024LL << 20);
  ExpectSet({"--order-disks", added + "," + kDisk1});
  EXPECT_EQ(Guest()["vdisks"], Parsed("[\"" + added + "\",\"" + kDisk1 + "\",\"" + kDisk0 + "\"]"));
  ExpectSet({"--del-disk", kDisk0, "--del-disk", kDisk1});
  EXPECT_EQ(Guest()["vdisks"], Parsed("[\"" + added + "\"]"));
  EXPECT_EQ(environment_.Images().size(), 1u);
}

TEST_F(EditOnDaemon, Interfaces_AreAddedChangedAndRemoved) {
  ExpectSet({"--add-nic", std::string("net=") + kNetworkByRecord + ",type=2,mac=02:00:5e:10:00:01,sriov=true",
             "--add-nic", "net=none", "--edit-nic", std::string(kNic0) + ",type=3", "--del-nic", kNic1});
  const Json::Value nics = Guest()["vnics"];
  ASSERT_EQ(nics.size(), 3u);
  const Json::Value first = RecordOf(*store_, "vnic", nics[1].asString());
  EXPECT_EQ(first["network_group_id"], Json::Value(kNetworkByRecord));
  EXPECT_EQ(first["mac_address"], Json::Value("02:00:5e:10:00:01"));
  EXPECT_EQ(first["vnic_type"], Json::Value(2));
  EXPECT_EQ(first["prefer_sriov"], Json::Value(true));
  EXPECT_EQ(RecordOf(*store_, "vnic", nics[2].asString())["network_group_id"], Json::Value(""));
  const Json::Value changed = RecordOf(*store_, "vnic", kNic0);
  EXPECT_EQ(changed["vnic_type"], Json::Value(3));
  EXPECT_EQ(changed["network_group_id"], Json::Value(kNetwork0)) << "what is not named stays";
  ExpectSet({"--edit-nic", std::string(kNic0) + ",net=none"});
  EXPECT_EQ(RecordOf(*store_, "vnic", kNic0)["network_group_id"], Json::Value(""));
}

TEST_F(EditOnDaemon, Edit_DrivesAndPorts_GetNamedContents) {
  const std::string file = MakeImageFile("a.iso");
  const auto added = Image({"add", "Debian 12", file});
  ASSERT_EQ(added.exit_code, 0) << added.errors;
  const std::string id = added.output.substr(0, 36);
  ExpectSet({"--iso", id, "--iso", MakeImageFile("b.iso")});
  EXPECT_EQ(Guest()["iso_images"], Parsed("[\"" + id + "\",\"" + ImageFolder() + "/b.iso\"]"));
  ExpectSet({"--iso", "none", "--iso", id});
  EXPECT_EQ(Guest()["iso_images"], Parsed("[\"unmounted\",\"" + id + "\"]"));
  ExpectSet({"--iso", "none"});
  EXPECT_EQ(Guest()["iso_images"], Parsed("[\"unmounted\"]"));
  ExpectSet({"--usb", "1234:00ab", "--usb", "3.14"});
  EXPECT_EQ(Guest()["usbs"], Parsed(R"(["1234:00ab","3.14","unmounted","unmounted"])"));
  ExpectSet({"--usb", "none"});
  EXPECT_EQ(Guest()["usbs"][0], Json::Value("unmounted"));
}

TEST_F(EditOnDaemon, SeveralChanges_AreMadeTogether) {
  ExpectSet({"name=shop", "vcpu_num=3", "--add-disk", "1", "--add-nic", "net=none", "--iso", "none"},
            "web: edited and renamed to shop\n");
  const Json::Value guest = Guest();
  EXPECT_EQ(guest["name"], Json::Value("shop"));
  EXPECT_EQ(guest["vcpu_num"], Json::Value(3));
  EXPECT_EQ(guest["vdisks"].size(), 3u);
  EXPECT_EQ(guest["vnics"].size(), 3u);
}

TEST_F(EditOnDaemon, Rights_AreGrantedAndTakenBackByName) {
  const std::vector<std::string> data{"--data", daemon_->config().data_directory};
  const auto with = [&](std::vector<std::string> words) {
    words.insert(words.end(), data.begin(), data.end());
    return words;
  };
  ExpectSet(with({"--allow", "user:mallory", "--allow", "user:grace", "--allow", "group:operators"}));
  EXPECT_TRUE(HasGrant("mallory"));
  EXPECT_TRUE(HasGrant("grace"));
  ExpectSet(with({"--revoke", "user:mallory", "--allow", "uid:" + std::to_string(UidOf("adam"))}));
  EXPECT_FALSE(HasGrant("mallory"));
  EXPECT_TRUE(HasGrant("grace"));
  EXPECT_TRUE(HasGrant("adam"));
  // The server knows the names, too.
  ExpectSet({"--revoke", "user:adam", "--allow", "user:mallory"});
  EXPECT_FALSE(HasGrant("adam"));
  EXPECT_TRUE(HasGrant("mallory"));
  const std::string before = Everything();
  const std::vector<std::string> unknown{"vcpu_num=7", "--allow", "user:nobody-of-this-name"};
  for (const auto& result : {Set(unknown), Set(with(unknown))}) {
    EXPECT_EQ(result.exit_code, 1);
    EXPECT_THAT(result.errors, StartsWith("vexa: "));
  }
  EXPECT_EQ(Everything(), before);
}

TEST_F(EditOnDaemon, Edit_RightsOfUnknownPrincipal_AreReportedAfterEdit) {
  const auto result = Set({"desc=new", "--allow", "uid:4000000"});
  EXPECT_EQ(result.exit_code, 1);
  EXPECT_THAT(result.errors, StartsWith("vexa: web: The guest was edited, but the rights of some users or groups on it "
                                        "could not be set (1001)."));
  EXPECT_EQ(Guest()["desc"], Json::Value("new"));
}

TEST_F(EditOnDaemon, DryRun_ChangesNothing) {
  const std::string before = Everything();
  const auto result = Set({"name=shop", "vcpu_num=3", "--add-disk", "1", "--del-disk", kDisk0, "--del-nic", kNic0,
                           "--iso", "none", "--allow", "uid:" + std::to_string(UidOf("mallory")), "--dry-run"});
  EXPECT_EQ(result.exit_code, 0);
  EXPECT_THAT(result.errors, StartsWith("vexa: web: Nothing was changed, as this is a dry run."));
  EXPECT_EQ(Parsed(result.output)["vdisks_add"], Parsed(R"([{"vdisk_size":1}])"));
  EXPECT_EQ(Parsed(result.output)["guest_id"], Json::Value(kEdited));
  EXPECT_EQ(Everything(), before);
  const auto unreadable = RunOn({"guest", "set", kUnknownId, "vcpu_num=3", "--dry-run"});
  EXPECT_EQ(unreadable.exit_code, 1);
  EXPECT_THAT(unreadable.errors, StartsWith("vexa: A record, host or repository could not be read (403)."));
}

TEST_F(EditOnDaemon, Set_NameOfTwoGuests_IsRefused) {
  const std::string before = Everything();
  const auto result = RunOn({"guest", "set", "web", "vcpu_num=3"});
  EXPECT_EQ(result.exit_code, 1);
  EXPECT_THAT(result.errors, StartsWith("vexa: Several guests are called 'web'. Use one of the ids "));
  EXPECT_EQ(Everything(), before);
}

TEST_F(EditOnDaemon, Set_Refused_ShowsSentenceAndChangesNothing) {
  const std::string unknown_id = kUnknownId;
  ExpectRefused({"name=db"}, "The name is already in use (406).");
  ExpectRefused({"--del-disk", unknown_id},
                "The guest could not be edited because one of its virtual disks cannot be edited (920).");
  ExpectRefused({"--del-nic", unknown_id}, "The guest could not be edited because of its network configuration (919).");
  ExpectRefused({"--add-nic", "net=" + unknown_id},
                "The guest could not be edited because of its network configuration (919).");
  ExpectRefused({"--iso", unknown_id}, "A parameter is missing or not valid (401).");
  ExpectRefused({"--iso", "/no/such.iso"},
                "The path of an ISO image does not lead to an image that can be used (934).");
  ExpectRefused({"usb_version=0", "--usb", "1.1"}, "A USB device could not be passed through to the guest (937).");
  ExpectRefused({"cpu_pin_num=3"},
                "The guest could not be edited: its host refused, or could not read or write what it "
                "needed. The system log has the reason (909).");
  const auto address = Set({"--add-nic", "net=none,mac=02:00:00:00:00:03"});
  EXPECT_EQ(address.exit_code, 1);
  EXPECT_THAT(address.errors,
              MatchesRegex("vexa: web: The MAC address is in use, or the guest runs \\(910\\)\\.\n"
                           "  Reason: An interface of the guest 'db' has the MAC address\\.\n  Hint: .*\n"
                           "  Details: \\{.*\"guest_name\":\"db\".*\\}\n"));
  EXPECT_EQ(Guest()["vnics"].size(), 2u);
}

TEST_F(EditOnDaemon, OrdinaryUser_GrantedGuest_MayChangeOnlyDrivesAndFirmware) {
  daemon_->ActAsOnUnixSocket("mallory");
  // Users without the guest do not learn its name.
  ExpectRefused({"--iso", "none"}, "You may not act on this guest (409).", kEdited);
  const auto grants = records::GuestAdminKey(records::GuestAdminIdentifier("users", ::geteuid()));
  PutRecord(*store_, grants, Parsed(std::string(R"({"authlevel":"user","guests":{")") + kEdited + R"(":true}})"));
  ExpectSet({"--iso", "none", "use_ovmf=true"});
  ExpectRefused({"vcpu_num=1"}, "You may not act on this guest (409).");
  ExpectRefused({"--allow", "uid:7"}, "You may not act on this guest (409).");
}

// In an editor.

TEST_F(EditOnDaemon, Editor_ChangesEditedSettings) {
  WriteFile(
      folder_.File("editor"),
      "#!/bin/sh\nsed -i 's/^vcpu_num = 2$/vcpu_num = 6/; s/^vram_size = 512$/vram_size = 768/; s/^name = \"web\"$/"
      "name = \"shop\"/; s/^#hyperv_enlighten = .*/hyperv_enlighten = false/' \"$1\"\n",
      0700);
  ProcessOptions program = ProgramOn({"guest", "edit", kEdited});
  program.environment["VISUAL"] = folder_.File("editor");
  const auto result = RunProcess(program);
  EXPECT_EQ(result.exit_code, 0) << result.errors;
  EXPECT_EQ(result.output, "web: edited and renamed to shop\n");
  const Json::Value guest = Guest();
  EXPECT_EQ(guest["vcpu_num"], Json::Value(6));
  EXPECT_EQ(guest["vram_size"], Json::Value(768));
  EXPECT_EQ(guest["name"], Json::Value("shop"));
  EXPECT_EQ(guest["hyperv_enlighten"], Json::Value(false));
  const std::string before = Everything();
  EXPECT_EQ(RunProcess(program).output, "shop: Nothing was changed\n");
  EXPECT_EQ(Everything(), before);
}

// Images.

TEST_F(EditOnDaemon, Images_AreListedWithTheirFiles) {
  EXPECT_EQ(Image({"list", "--ids"}).output, "IMAGE  NAME  BYTES  PRESENT  PATH\n");
  const std::string file = MakeImageFile("a.iso");
  const auto first = Image({"add", "Debian 12", file, "--id", "5B1C7D0A-3E84-4F96-B2A7-91C0DE45F3B8"});
  EXPECT_EQ(first.exit_code, 0) << first.errors;
  EXPECT_EQ(first.output, "5b1c7d0a-3e84-4f96-b2a7-91c0de45f3b8\n");
  EXPECT_EQ(RecordOf(*store_, "image", "5b1c7d0a-3e84-4f96-b2a7-91c0de45f3b8"),
            Parsed(R"({"name":"Debian 12","path":")" + file + "\"}"));
  EXPECT_THAT(Image({"list", "--ids"}).output,
              HasSubstr("\n5b1c7d0a-3e84-4f96-b2a7-91c0de45f3b8  Debian 12  12     yes      " + file + "\n"));
  fs::remove(file);
  EXPECT_EQ(Parsed(Image({"list", "--json"}).output),
            Parsed(R"([{"image_id":"5b1c7d0a-3e84-4f96-b2a7-91c0de45f3b8","name":"Debian 12","path":")" + file +
                   R"(","present":false}])"));
  EXPECT_THAT(Image({"list", "--ids"}).output, HasSubstr("  Debian 12  -      no       "));
}

TEST_F(EditOnDaemon, ImageAdd_Invalid_IsRefusedWithReason) {
  const std::string root = ImageFolder();
  MakeImageFile("a.iso");
  const std::string outside = environment_.File("outside.iso");
  std::ofstream(outside) << "x";
  fs::create_directory(root + "/deep");
  fs::create_symlink(outside, root + "/link.iso");
  fs::create_directory_symlink(fs::path(outside).parent_path(), root + "/folder");
  ASSERT_EQ(::mkfifo((root + "/fifo.iso").c_str(), 0600), 0);
  for (const std::string& path : {outside, root + "/link.iso", root + "/folder/outside.iso", root + "/deep", root,
                                  root + "/fifo.iso", root + "/deep/../a.iso", root + "/./a.iso"}) {
    const auto result = Image({"add", "x", path});
    EXPECT_EQ(result.exit_code, 1) << path;
    EXPECT_THAT(result.output, IsEmpty());
    EXPECT_THAT(result.errors,
                AllOf(HasSubstr("(934)."), HasSubstr("\n  Reason: '" + path + "' is not a regular file below '" + root +
                                                     "' without '.', '..' and symbolic links.\n")));
  }
  EXPECT_EQ(Image({"list", "--json"}).output, "[]\n");
}

TEST_F(EditOnDaemon, ImageAdd_Existing_IsRefused) {
  const std::string file = MakeImageFile("a.iso");
  const std::string other = MakeImageFile("b.iso");
  const std::string id = "5b1c7d0a-3e84-4f96-b2a7-91c0de45f3b8";
  ASSERT_EQ(Image({"add", "a", file, "--id", id}).exit_code, 0);
  const std::tuple<std::string, std::string, std::string, std::string> rows[] = {
      {"b", other, id, "There is an image '" + id + "' already"},
      {"a", other, kUnknownId, "The image '" + id + "' has the name 'a'"},
      {"b", file, kUnknownId, "The file '" + file + "' is the image 'a' already"},
  };
  for (const auto& [name, path, new_id, expected] : rows) {
    const auto result = Image({"add", name, path, "--id", new_id});
    EXPECT_EQ(result.exit_code, 1);
    EXPECT_THAT(result.errors, AllOf(HasSubstr("(990)."), HasSubstr("\n  Reason: " + expected + ".\n")));
  }
  EXPECT_EQ(Parsed(Image({"list", "--json"}).output).size(), 1u);
}

TEST_F(EditOnDaemon, ImageRemove_ImageInDrive_IsRefusedUntilEjected) {
  const std::string file = MakeImageFile("a.iso");
  MakeImageFile("b.iso");
  const std::string id = "5b1c7d0a-3e84-4f96-b2a7-91c0de45f3b8";
  ASSERT_EQ(Image({"add", "a", file, "--id", id}).exit_code, 0);
  ProcessOptions relative = ProgramOn({"image", "add", "b", "b.iso"});
  relative.working_directory = ImageFolder();
  EXPECT_EQ(RunProcess(relative).exit_code, 0);
  EXPECT_THAT(Image({"list", "--ids"}).output, HasSubstr(ImageFolder() + "/b.iso\n"));
  for (const std::string& drive : {id, file}) {
    ExpectSet({"--iso", drive});
    const auto used = Image({"remove", "a"});
    EXPECT_EQ(used.exit_code, 1);
    EXPECT_THAT(
        used.errors,
        AllOf(
            HasSubstr("(991)."),
            HasSubstr(
                "\n  Reason: The image 'a' is in a drive of these guests: 'web'. Take it out of the drives first.\n")));
    ExpectSet({"--iso", "none"});
  }
  EXPECT_EQ(Image({"remove", "a"}).output, "Removed the image 'a'. Its file stays.\n");
  EXPECT_TRUE(fs::exists(file));
  EXPECT_TRUE(RecordOf(*store_, "image", id).isNull());
  ExpectRefused({"--iso", id}, "A parameter is missing or not valid (401).");
}

}  // namespace
}  // namespace vexa::test
