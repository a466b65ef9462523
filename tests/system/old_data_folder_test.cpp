// A data folder that version 0.1.0 wrote, killed in the middle of edits, deletions and a start, under today's daemon.
// data/README.md describes what is in it.
#include <gtest/gtest.h>
#include <signal.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "host/base/json_parse.h"
#include "json/readers.h"
#include "tests/support/matchers.h"
#include "tests/support/process.h"
#include "tests/support/temp_dir.h"
#include "tests/support/vexad_client.h"
#include "tests/support/waiting.h"
#include "tests/system/old_data_folder.h"

namespace vexa::test {
namespace {

namespace fs = std::filesystem;
namespace json = VexaVirtualization::json;

constexpr std::chrono::seconds kTimeout{60};
constexpr char kGuestApi[] = "VEXA.Virtualization.Guest";
constexpr char kPowerApi[] = "VEXA.Virtualization.Guest.Action";
constexpr char kPool[] = "3f1c7a52-6b0e-4d8f-9a43-5e2d81c0b7f6";
constexpr char kImage[] = "5b1c7d0a-3e84-4f96-b2a7-91c0de45f3b8";

// Its guests; beside these there are away-1 on the second host, and free-1, whose host never was in the cluster.
std::string IdOf(int number) { return "0b6c1f5e-2a7d-4c39-8e14-93d5a7f0c2" + std::to_string(number); }
const std::string kEdited = IdOf(11);         // web-1: off, edited, granted to bob and to the group staff
const std::string kRunning = IdOf(12);        // db-1: granted to the group staff
const std::string kPending = IdOf(13);        // cache-1: runs, with settings for its next start
const std::string kEditBegun = IdOf(14);      // doing-1: killed while its files were changed, before its records
const std::string kEditMade = IdOf(15);       // purging-1: killed when its records were changed
const std::string kDeletionBegun = IdOf(16);  // hiding-1: killed before its records were removed
const std::string kDeleted = IdOf(17);        // gone-1: killed when they were removed
const std::string kStopped = IdOf(19);        // stopped-1: powered off by an administrator
const std::string kStarting = IdOf(21);       // starting-1: killed while it was started

class OldDataFolder : public testing::Test {
 protected:
  void SetUp() override {
    MakeOldDataFolder("0.1.0", Data());
    Start();
  }

  std::string Data() const { return folder_.File("data"); }
  std::string DiskFile(const std::string& name) const { return Data() + "/images/" + kPool + "/" + name + ".img"; }

  void Start() {
    daemon_ = std::make_unique<Process>(
        ProcessOptions{.argv = {VEXAD_PROGRAM, "--config", "/dev/null", "--data", Data(), "--socket", folder_.File("s"),
                                "--listen", "127.0.0.1:0", "--log", "stderr"}});
    ASSERT_TRUE(daemon_->WaitForText("Ready.", kTimeout)) << daemon_->errors();
  }
  void Stop() {
    daemon_->Signal(SIGTERM);
    const auto status = daemon_->Wait(kTimeout);
    ASSERT_TRUE(status.has_value());
    EXPECT_EQ(status->code, 0) << daemon_->errors();
  }

  // The reply to an administrator on the Unix socket.
  Json::Value Call(const std::string& api, const std::string& method, const std::string& parameters = "{}") const {
    HttpClient client(UnixSocket(folder_.File("s")));
    return Parsed(client.PostJson("/webapi/" + api + "/" + method, parameters));
  }
  // The data of such a reply, which must be a success.
  Json::Value DataOf(const std::string& api, const std::string& method, const std::string& parameters = "{}") const {
    const Json::Value reply = Call(api, method, parameters);
    EXPECT_EQ(CodeOf(reply), 0) << method << parameters << ": " << json::ToText(reply);
    return json::Member(reply, "data");
  }
  static std::string Guest(const std::string& guest_id, const std::string& more_members = "") {
    return R"({"guest_id":")" + guest_id + '"' + more_members + "}";
  }
  int Power(const std::string& guest_id, const std::string& action) const {
    return CodeOf(Call(kPowerApi, "pwr_ctl", Guest(guest_id, R"(,"action":")" + action + '"')));
  }
  Json::Value GetGuest(const std::string& guest_id) const { return DataOf(kGuestApi, "get", Guest(guest_id)); }
  int CodeOfGet(const std::string& guest_id) const { return CodeOf(Call(kGuestApi, "get", Guest(guest_id))); }

  // A client of the network listener that has logged in.
  HttpClient LogIn(const std::string& user) const {
    HttpClient client(NetworkOf(*daemon_));
    const Json::Value reply =
        Parsed(client.PostJson("/webapi/VEXA.Core.Session/login",
                               R"({"user":")" + user + R"(","password":")" + user + R"('s old password"})"));
    EXPECT_EQ(CodeOf(reply), 0) << user << ": " << json::ToText(reply);
    client.SetHeader("Authorization", "Bearer " + json::String(json::Member(json::Member(reply, "data"), "token")));
    return client;
  }
  static int CodeOfGet(HttpClient& client, const std::string& guest_id) {
    return CodeOf(Parsed(client.PostJson(std::string("/webapi/") + kGuestApi + "/get", Guest(guest_id))));
  }

  // The texts of a member of each element.
  static std::set<std::string> Texts(const Json::Value& list, const char* member) {
    std::set<std::string> texts;
    for (const Json::Value& element : json::Elements(list)) texts.insert(json::String(json::Member(element, member)));
    return texts;
  }
  // The state of each guest by its name.
  std::map<std::string, std::string> States() const {
    std::map<std::string, std::string> states;
    const Json::Value data = DataOf(kGuestApi, "list");
    for (const Json::Value& guest : json::Elements(json::Member(data, "guests"))) {
      states[json::String(json::Member(guest, "guest_name"))] = json::String(json::Member(guest, "status"));
    }
    return states;
  }
  std::map<std::string, std::string> RepositoryStates() const {
    std::map<std::string, std::string> states;
    const Json::Value data = DataOf("VEXA.Virtualization.Repository", "list");
    for (const Json::Value& repository : json::Elements(json::Member(data, "repositories"))) {
      states[json::String(json::Member(repository, "name"))] = json::String(json::Member(repository, "state"));
    }
    return states;
  }
  std::vector<std::string> LogTexts() const {
    std::vector<std::string> texts;
    const Json::Value data = DataOf("VEXA.Virtualization.Log", "list", R"({"limit":1000})");
    for (const Json::Value& entry : json::Elements(json::Member(data, "entries"))) {
      texts.push_back(json::String(json::Member(entry, "text")));
    }
    return texts;
  }

  static Json::Value Parsed(const HttpReply& reply) {
    EXPECT_TRUE(reply.arrived()) << reply.transport_error;
    const auto parsed = ParseJson(reply.body);
    EXPECT_TRUE(parsed.ok()) << reply.body;
    return parsed ? *parsed : Json::Value();
  }
  // 0: a success.
  static int CodeOf(const Json::Value& reply) { return json::Int(json::Member(json::Member(reply, "error"), "code")); }
  // Whether a file of the guest has the name that edits and deletions give what is to be removed.
  bool IsHidden(const std::string& guest_id) const {
    for (const auto& entry : fs::recursive_directory_iterator(Data() + "/images")) {
      if (entry.path().filename().string().starts_with(".vexa-deleted-" + guest_id)) return true;
    }
    return false;
  }
  static std::string Beginning(const std::string& path, const std::string& text) {
    std::ifstream file(path);
    std::string content(text.size(), '\0');
    file.read(content.data(), static_cast<std::streamsize>(content.size()));
    return content;
  }

  TempDir folder_;
  std::unique_ptr<Process> daemon_;
};

TEST_F(OldDataFolder, Accounts_AreMigratedWithPasswordsGroupsAndGrants) {
  EXPECT_FALSE(fs::exists(Data() + "/accounts.json"));
  EXPECT_TRUE(fs::exists(Data() + "/accounts.json.taken-over"));
  const Json::Value users = json::Member(DataOf("VEXA.Core.Account", "user_list"), "users");
  EXPECT_EQ(Texts(users, "name"), (std::set<std::string>{"admin", "bob", "carol"}));
  for (const Json::Value& user : json::Elements(users)) {
    const std::string name = json::String(json::Member(user, "name"));
    EXPECT_EQ(json::Bool(json::Member(user, "administrator")), name == "admin") << json::ToText(user);
    EXPECT_EQ(json::Bool(json::Member(user, "advanced")), name == "carol") << json::ToText(user);
    EXPECT_EQ(Texts(json::Member(user, "groups"), "name").contains("staff"), name != "admin") << json::ToText(user);
  }
  HttpClient admin = LogIn("admin");
  EXPECT_EQ(CodeOfGet(admin, kStopped), 0);
  HttpClient bob = LogIn("bob");
  EXPECT_EQ(CodeOfGet(bob, kEdited), 0) << "granted to himself";
  EXPECT_EQ(CodeOfGet(bob, kRunning), 0) << "granted to his group";
  EXPECT_EQ(CodeOfGet(bob, kPending), 409);
  HttpClient carol = LogIn("carol");
  EXPECT_EQ(CodeOfGet(carol, kRunning), 0) << "granted to her group";
}

TEST_F(OldDataFolder, Guests_AreListedWithTheirStates) {
  // The host of away-1 is gone, and the deletion of hiding-1 is finished.
  const std::map<std::string, std::string> expected = {
      {"web-1", "shutdown"},     {"db-1", "running"},       {"cache-1", "running"},
      {"doing-1", "shutdown"},   {"purging-1", "shutdown"}, {"away-1", "inaccessible"},
      {"stopped-1", "shutdown"}, {"free-1", "shutdown"},    {"starting-1", "shutdown"}};
  std::map<std::string, std::string> states;
  EXPECT_TRUE(Eventually([&] { return (states = States()) == expected; })) << testing::PrintToString(states);
}

TEST_F(OldDataFolder, Guest_HasSettingsDisksInterfacesAndDrives) {
  const Json::Value guest = GetGuest(kEdited);
  EXPECT_EQ(json::String(json::Member(guest, "name")), "web-1");
  EXPECT_EQ(json::String(json::Member(guest, "desc")), "Edited by 0.1.0");
  EXPECT_EQ(json::Int(json::Member(guest, "vcpu_num")), 2);
  EXPECT_EQ(json::String(json::Member(guest, "boot_from")), "iso");
  EXPECT_EQ(json::String(json::Member(guest, "video_card")), "vga");
  EXPECT_EQ(json::String(json::Member(guest, "kb_layout")), "de");
  EXPECT_THAT(json::ToText(json::Member(guest, "usbs")), HasSubstr("1234:00ab"));
  EXPECT_THAT(json::ToText(json::Member(guest, "iso_images")), HasSubstr(kImage));
  EXPECT_EQ(json::Elements(json::Member(guest, "vdisks")).size(), 3u);
  EXPECT_EQ(Texts(json::Member(guest, "vnics"), "mac"),
            (std::set<std::string>{"52:54:00:00:00:11", "02:00:5e:10:00:01"}));
  EXPECT_TRUE(Eventually([&] {
    const Json::Value shown = DataOf(kGuestApi, "status", Guest(kEdited));
    return Texts(json::Member(shown, "disks"), "status") == std::set<std::string>{"online"};
  }));
  // Edited while it ran.
  EXPECT_EQ(json::Int(json::Member(GetGuest(kPending), "vcpu_num")), 2);
}

TEST_F(OldDataFolder, HostsRepositoriesImagesAndTheLog_AreListed) {
  EXPECT_EQ(json::Elements(json::Member(DataOf("VEXA.Virtualization.Host", "list"), "hosts")).size(), 2u);
  // The old version knew the folders of pool-1; the host of "pool 2" has gone.
  const std::map<std::string, std::string> repositories = {{"pool-1", "repo_online"}, {"pool 2", "repo_inaccessible"}};
  EXPECT_EQ(RepositoryStates(), repositories);
  const Json::Value images = json::Member(DataOf("VEXA.Virtualization.Image", "list"), "images");
  ASSERT_EQ(images.size(), 1u);
  EXPECT_EQ(json::String(json::Member(images[0], "name")), "debian-12");
  EXPECT_TRUE(json::Bool(json::Member(images[0], "present")));
  EXPECT_THAT(LogTexts(), Contains(HasSubstr("[stopped-1]")));
  EXPECT_THAT(LogTexts(), Contains(HasSubstr("[web-1]")));
}

TEST_F(OldDataFolder, Edit_KilledBeforeCommit_IsUndone) {
  const std::string first = DiskFile("doing-1-vda");
  const std::string second = DiskFile("doing-1-vdb");
  EXPECT_TRUE(Eventually([&] { return fs::exists(second) && fs::file_size(first) == 1 << 20; }));
  for (const char* disk : {"vda", "vdb"}) {
    const std::string text = std::string("what is on ") + disk + " of doing-1";
    EXPECT_EQ(Beginning(DiskFile(std::string("doing-1-") + disk), text), text);
  }
  const Json::Value guest = GetGuest(kEditBegun);
  EXPECT_EQ(json::String(json::Member(guest, "desc")), "The guest doing-1 of 0.1.0");
  EXPECT_EQ(json::Elements(json::Member(guest, "vdisks")).size(), 2u);
  EXPECT_EQ(Power(kEditBegun, "poweron"), 0) << daemon_->errors();
}

TEST_F(OldDataFolder, Edit_KilledAfterCommit_IsFinished) {
  EXPECT_TRUE(Eventually([&] { return !IsHidden(kEditMade); }));
  EXPECT_FALSE(fs::exists(DiskFile("purging-1-vdb")));
  EXPECT_TRUE(fs::exists(DiskFile("purging-1-vda")));
  const Json::Value guest = GetGuest(kEditMade);
  EXPECT_EQ(json::String(json::Member(guest, "desc")), "Done by 0.1.0");
  EXPECT_EQ(json::Elements(json::Member(guest, "vdisks")).size(), 1u);
  EXPECT_TRUE(Eventually([&] { return Power(kEditMade, "poweron") == 0; })) << daemon_->errors();
}

TEST_F(OldDataFolder, Deletion_KilledBeforeOrAfterCommit_IsFinished) {
  for (const auto& [guest_id, name] : {std::pair(kDeletionBegun, "hiding-1"), std::pair(kDeleted, "gone-1")}) {
    EXPECT_TRUE(Eventually([&, id = guest_id] { return CodeOfGet(id) == 403 && !IsHidden(id); })) << name;
    EXPECT_FALSE(fs::exists(DiskFile(name + std::string("-vda")))) << name;
  }
}

TEST_F(OldDataFolder, PowerOn_KilledBeforeDomainStart_IsUndone) {
  EXPECT_TRUE(Eventually([&] { return Power(kStarting, "poweron") == 0; })) << daemon_->errors();
  EXPECT_TRUE(Eventually([&] { return States()["starting-1"] == "running"; }));
}

TEST_F(OldDataFolder, RunningGuests_CanBePoweredOffAndOn) {
  for (const std::string& guest_id : {kRunning, kPending}) {
    // The test driver forgets, and the host starts what has run.
    EXPECT_TRUE(Eventually([&] { return Power(guest_id, "poweroff") == 0; })) << daemon_->errors();
    EXPECT_EQ(Power(guest_id, "poweron"), 0);
  }
  EXPECT_TRUE(Eventually([&] { return States()["db-1"] == "running"; }));
}

TEST_F(OldDataFolder, Guest_CanBeEditedAndDeleted) {
  const std::string edit = R"(,"desc":"Edited today","vram_size":32,"vdisks_add":[{"vdisk_size":1}])";
  EXPECT_TRUE(Eventually([&] { return CodeOf(Call(kGuestApi, "set", Guest(kEdited, edit))) == 0; }))
      << daemon_->errors();
  const Json::Value guest = GetGuest(kEdited);
  EXPECT_EQ(json::String(json::Member(guest, "desc")), "Edited today");
  EXPECT_EQ(json::Elements(json::Member(guest, "vdisks")).size(), 4u);
  EXPECT_EQ(Power(kEdited, "poweron"), 0) << daemon_->errors();
  EXPECT_EQ(Power(kEdited, "poweroff"), 0);
  EXPECT_EQ(CodeOf(Call(kGuestApi, "delete", Guest(kEdited))), 0) << daemon_->errors();
  EXPECT_EQ(CodeOfGet(kEdited), 403);
  EXPECT_FALSE(fs::exists(DiskFile("web-1-vda")));
  EXPECT_TRUE(fs::exists(DiskFile("stopped-1-vda")));
  EXPECT_THAT(LogTexts(), Contains(HasSubstr("[web-1]")));
}

TEST_F(OldDataFolder, Images_AreCheckedAndAdded) {
  constexpr int kInUse = 991;
  const std::string old_image = R"({"image_id":")" + std::string(kImage) + "\"}";
  EXPECT_EQ(CodeOf(Call("VEXA.Virtualization.Image", "remove", old_image)), kInUse) << "it is in a drive";
  std::ofstream(Data() + "/images/new.iso") << "another installer";
  const std::string new_image = R"({"name":"debian-13","path":")" + Data() + R"(/images/new.iso"})";
  DataOf("VEXA.Virtualization.Image", "add", new_image);
  const Json::Value images = json::Member(DataOf("VEXA.Virtualization.Image", "list"), "images");
  EXPECT_EQ(Texts(images, "name"), (std::set<std::string>{"debian-12", "debian-13"}));
}

// The store is today's from then on.
TEST_F(OldDataFolder, SecondStart_KeepsMigratedData) {
  EXPECT_TRUE(Eventually([&] { return CodeOf(Call(kGuestApi, "set", Guest(kStopped, R"(,"desc":"kept")"))) == 0; }));
  Stop();
  ASSERT_NO_FATAL_FAILURE(Start());
  EXPECT_EQ(json::String(json::Member(GetGuest(kStopped), "desc")), "kept");
  HttpClient bob = LogIn("bob");
  EXPECT_EQ(CodeOfGet(bob, kEdited), 0);
}

}  // namespace
}  // namespace vexa::test
