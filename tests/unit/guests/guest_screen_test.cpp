// The keyboard layouts that QEMU has, in edits and at starts; on libvirt's test driver.
#include <filesystem>
#include <fstream>

#include "host/guests/keymaps.h"
#include "tests/support/libvirt_faults.h"
#include "tests/support/syslog_capture.h"
#include "tests/unit/guests/guest_control_fixture.h"

namespace vexa::guests {
namespace {

namespace fs = std::filesystem;

class GuestScreen : public GuestControlTest {
 protected:
  GuestScreen() {
    test::ClearCapturedSyslog();
    fs::create_directory(Folder());
    for (const char* name : {"de", "en-us", "common", "modifiers", "no layout"}) std::ofstream(Folder() + "/" + name);
  }
  std::string Folder() const { return host_.folder().File("keymaps"); }
  void StartWithKeymaps() {
    GuestControlOptions options = Options();
    options.keymap_folders = {host_.folder().File("missing"), Folder()};
    Start(std::move(options));
  }
  static Json::Value Layout(const std::string& layout) {
    Json::Value edit(Json::objectValue);
    edit["kb_layout"] = layout;
    return edit;
  }
};

constexpr char kUnknown[] =
    "The parameter 'kb_layout' is 'xx', and QEMU on this host has only 'Default', 'de', 'en-us'";

TEST_F(GuestScreen, Edit_UnknownLayout_IsRefusedWithTheKnownOnes) {
  ASSERT_NO_FATAL_FAILURE(StartWithKeymaps());
  EXPECT_REFUSED(control_->Edit(kGuest, Layout("xx"), kAlice), 401, kUnknown);
  EXPECT_REFUSED(control_->Edit(kGuest, Layout("common"), kAlice), 401, "is 'common', and QEMU on this host has only");
  for (const char* layout : {"de", "en-us", "Default", ""}) EXPECT_DONE(control_->Edit(kGuest, Layout(layout), kAlice));
}

TEST_F(GuestScreen, Create_UnknownLayout_IsRefusedWithTheKnownOnes) {
  ASSERT_NO_FATAL_FAILURE(StartWithKeymaps());
  host_.Put("repository", "pool-1", Parsed(R"({"name":"pool-1"})"));
  Json::Value guest = Parsed(R"({"name":"new","repository_id":"pool-1","kb_layout":"xx"})");
  guest["host_id"] = HostId();
  EXPECT_REFUSED(control_->Create(guest, kAlice), 401, kUnknown);
  guest["kb_layout"] = "de";
  EXPECT_DONE(control_->Create(guest, kAlice));
}

// Written by another host, or by an earlier version.
TEST_F(GuestScreen, Record_UnknownLayout_StartsWithoutItAndCanBeEdited) {
  PutGuest(kGuest, "web-1", Layout("xx"));
  ASSERT_NO_FATAL_FAILURE(StartWithKeymaps());
  Json::Value edit = Layout("xx");
  edit["desc"] = "the layout stays";
  EXPECT_DONE(control_->Edit(kGuest, edit, kAlice));
  EXPECT_DONE(control_->PowerOn(kGuest, kAlice));
  EXPECT_EQ(test::XmlAsUser(kGuest).find("keymap"), std::string::npos);
  EXPECT_TRUE(test::SyslogContains(
      "The guest " + std::string(kGuest) +
      " has the keyboard layout 'xx', which QEMU on this host does not have. It gets QEMU's own layout"));
  // Once for each start, and not whenever somebody looks.
  test::ClearCapturedSyslog();
  const auto pending = control_->Pending(kGuest);
  ASSERT_TRUE(pending.ok());
  EXPECT_TRUE(pending->empty());
  EXPECT_FALSE(test::SyslogContains("keyboard layout"));
}

TEST_F(GuestScreen, Record_KnownLayout_IsWritten) {
  PutGuest(kGuest, "web-1", Layout("de"));
  ASSERT_NO_FATAL_FAILURE(StartWithKeymaps());
  EXPECT_DONE(control_->PowerOn(kGuest, kAlice));
  EXPECT_NE(test::XmlAsUser(kGuest).find("keymap='de'"), std::string::npos) << test::XmlAsUser(kGuest);
  EXPECT_FALSE(test::SyslogContains("keyboard layout"));
}

TEST_F(GuestScreen, GuestOfAnotherHost_AnyLayout_IsEdited) {
  Json::Value elsewhere(Json::objectValue);
  elsewhere["host_id"] = "host-2";
  PutGuest(kGuest, "web-1", elsewhere);
  ASSERT_NO_FATAL_FAILURE(StartWithKeymaps());
  EXPECT_DONE(control_->Edit(kGuest, Layout("xx"), kAlice));
}

TEST_F(GuestScreen, Layouts_Unknown_AnyIsAccepted) {
  GuestControlOptions options = Options();
  options.keymap_folders = {host_.folder().File("missing")};
  Start(std::move(options));
  EXPECT_DONE(control_->Edit(kGuest, Layout("xx"), kAlice));
}

TEST_F(GuestScreen, Keymaps_AreTheFilesOfTheFirstFolderThatHasAny) {
  const std::string empty = host_.folder().File("empty");
  fs::create_directory(empty);
  EXPECT_EQ(FindKeymaps({empty, Folder()}), (std::set<std::string>{"de", "en-us"}));
  EXPECT_EQ(FindKeymaps({empty}), std::nullopt);
  EXPECT_EQ(FindKeymaps({}), std::nullopt);
}

}  // namespace
}  // namespace vexa::guests
