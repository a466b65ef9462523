#include "host/storage/folder_chain.h"

#include <gtest/gtest.h>

#include <chrono>
#include <thread>

#include "host/base/json_parse.h"
#include "json/readers.h"
#include "tests/support/matchers.h"
#include "tests/support/require.h"
#include "tests/unit/storage/mount_point.h"

namespace vexa::storage {
namespace {

using Finding = FolderChainCheck::Finding;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using Finding = FolderChainCheck::Finding;

namespace fs = std::filesystem;

TEST(FolderIdentityText, RoundTrip_KeepsAllMembers) {
  for (const FolderIdentity& identity :
       {FolderIdentity{2, "1700000000.000000001", 0x8f3a}, FolderIdentity{~0ULL, std::nullopt, 0},
        FolderIdentity{0, "-1.999999999", ~0ULL}}) {
    const auto parsed = ParseIdentity(IdentityString(identity));
    ASSERT_TRUE(parsed) << IdentityString(identity);
    EXPECT_EQ(IdentityString(*parsed), IdentityString(identity));
    EXPECT_TRUE(IsSameFolder(*parsed, identity));
  }
  EXPECT_EQ(IdentityString({2, "1.000000001", 0x8f3a}), "ino=2 fsid=8f3a born=1.000000001");
}

TEST(FolderIdentityText, Parse_OtherStrings_AreRefused) {
  for (const char* text : {"", "ino=", "ino=2", "ino=-1 fsid=0", "ino=2 fsid=", "ino=2 fsid=x", "ino=2 fsid=1 ",
                           "ino=2 fsid=1 born=", "ino=2 fsid=1 born=1", "ino=2 fsid=1 born=.000000001",
                           "ino=2 fsid=1 born=1.1", "ino=2 fsid=1 born=1.000000001 ", "ino=2 fsid=1 born=1.00000000a",
                           "ino=18446744073709551616 fsid=1", "ino=2 fsid=11111111111111111", " ino=2 fsid=1"}) {
    EXPECT_FALSE(ParseIdentity(text)) << text;
    EXPECT_FALSE(IsSameFolder(text, text)) << text;
  }
}

struct Pair {
  FolderIdentity one;
  FolderIdentity other;
  bool is_same;
};
class SameFolder : public ::testing::TestWithParam<Pair> {};
INSTANTIATE_TEST_SUITE_P(Rows, SameFolder,
                         ::testing::Values(Pair{{2, "1.000000000", 7}, {2, "1.000000000", 7}, true},
                                           Pair{{2, "1.000000000", 7}, {2, "1.000000000", 8}, true},
                                           Pair{{2, "1.000000000", 7}, {2, "1.000000001", 7}, false},
                                           Pair{{2, "1.000000000", 7}, {3, "1.000000000", 7}, false},
                                           Pair{{2, std::nullopt, 7}, {2, std::nullopt, 7}, true},
                                           Pair{{2, std::nullopt, 7}, {2, std::nullopt, 8}, false},
                                           Pair{{2, std::nullopt, 0}, {2, "1.000000000", 7}, false},
                                           Pair{{2, std::nullopt, 7}, {2, "1.000000000", 7}, true},
                                           Pair{{2, std::nullopt, 0}, {3, std::nullopt, 0}, false}));
TEST_P(SameFolder, IsSame_InodeAndBirthKnown_DecideElseFileSystem) {
  EXPECT_EQ(IsSameFolder(GetParam().one, GetParam().other), GetParam().is_same);
  EXPECT_EQ(IsSameFolder(GetParam().other, GetParam().one), GetParam().is_same);
}

TEST(FolderChainFromJsonTest, FromJson_RoundTrip_KeepsFolders) {
  const FolderChain trail{{"/srv/", "ino=2 fsid=1"}, {"/srv/\xC3\xA4 \"b\"", "ino=3 fsid=1"}};
  const auto text = VexaVirtualization::json::ToText(FolderChainJson(trail));
  EXPECT_EQ(FolderChainFromJson(test::Require(ParseJson(text))), trail);
}

TEST(FolderChainFromJsonTest, FromJson_HostileValues_NeverMatch) {
  for (const char* text : {"null", "[]", "7", "\"/srv/\"", "{}"}) {
    EXPECT_THAT(FolderChainFromJson(test::Require(ParseJson(text))), IsEmpty()) << text;
  }
  for (const char* text :
       {R"({"/": 7})", R"({"/": null})", R"({"/": {"/": "ino=2 fsid=1"}})", R"({"": "ino=2 fsid=1"})",
        R"({"/tmp": "ino=2 fsid=1"})", R"({"tmp/": "ino=2 fsid=1"})", R"({"/../": "ino=2 fsid=1"})",
        R"({"/tmp/../": "ino=2 fsid=1"})", R"({"/\u0000/": "ino=2 fsid=1"})", R"({"//": "ino=2 fsid=1"})"}) {
    EXPECT_EQ(CheckFolderChain(FolderChainFromJson(test::Require(ParseJson(text)))).finding, Finding::kNotMounted)
        << text;
  }
}

TEST(ChainFoldersTest, Folders_OfPath_StartAtLongestRoot) {
  const std::vector<std::string> roots{"/srv", "/srv/images/", "relative", ""};
  EXPECT_THAT(FolderChainPaths(roots, "/srv/images/a/b/disk.raw"),
              ElementsAre("/srv/images/", "/srv/images/a", "/srv/images/a/b"));
  EXPECT_THAT(FolderChainPaths(roots, "/srv//./a/disk.raw"), ElementsAre("/srv/", "/srv/a"));
  EXPECT_THAT(FolderChainPaths(roots, "/srv/images/disk.raw"), ElementsAre("/srv/images/"));
  EXPECT_THAT(FolderChainPaths({"/"}, "/a/disk.raw"), ElementsAre("/", "/a"));
  for (const char* path : {"", "/", "disk.raw", "/srv/../srv/x", "/srvx/disk", "/srv/images/", "/etc/x"}) {
    EXPECT_THAT(FolderChainPaths(roots, path), IsEmpty()) << path;
  }
}

TEST(ChainFoldersTest, PartOf_Path_HasOnlyItsEntries) {
  const FolderChain known{{"/srv/", "1"}, {"/srv/a", "2"}, {"/srv/b", "3"}};
  EXPECT_EQ(SubChain(known, {"/srv"}, "/srv/a/x/disk"), (FolderChain{{"/srv/", "1"}, {"/srv/a", "2"}}));
  EXPECT_EQ(SubChain(known, {"/srv"}, "/var/disk"), FolderChain());
}

class FolderChainTest : public ::testing::Test {
 protected:
  FolderChain TrailAt(const std::string& path) const { return test::Require(ReadFolderChain(Roots(), path)); }
  std::vector<std::string> Roots() const { return {mount_.path()}; }

  test::MountPoint mount_{"images"};
};

TEST_F(FolderChainTest, Chain_ExistingFoldersAndFile_IsFound) {
  test::WriteImage(mount_.File("pool/web/disk"));
  const auto look = test::Require(ReadFolderChainState(Roots(), mount_.File("pool/web/disk")));
  EXPECT_EQ(look.folders.size(), 3u);
  EXPECT_TRUE(look.has_file);
  EXPECT_TRUE(ParseIdentity(look.folders.at(mount_.path() + "/")));
  const auto missing = test::Require(ReadFolderChainState(Roots(), mount_.File("pool/mail/disk")));
  EXPECT_EQ(missing.folders.size(), 2u);
  EXPECT_FALSE(missing.has_file);
  EXPECT_FALSE(test::Require(ReadFolderChainState(Roots(), mount_.File("pool/web"))).has_file)
      << "a folder is not a file";
  fs::remove_all(mount_.path());
  EXPECT_THAT(TrailAt(mount_.File("pool/web/disk")), IsEmpty());
}

TEST_F(FolderChainTest, Chain_LinkBelowRoot_IsRefused) {
  test::WriteImage(mount_.File("pool/disk"));
  fs::create_directory_symlink(mount_.path(), mount_.folder().File("link"));
  fs::create_directory_symlink("pool", mount_.File("below"));
  const std::string root = mount_.folder().File("link");
  const auto through_root = ReadFolderChainState({root}, root + "/pool/disk");
  ASSERT_TRUE(through_root);
  EXPECT_TRUE(through_root->has_file);
  EXPECT_EQ(CheckFolderChain(through_root->folders).finding, Finding::kSame);
  const auto through_link = ReadFolderChainState(Roots(), mount_.File("below/disk"));
  ASSERT_FALSE(through_link);
  EXPECT_EQ(through_link.error().code(), ErrorCode::kInvalid);
  EXPECT_FALSE(ReadFolderChainState(Roots(), "/etc/passwd"));
}

TEST_F(FolderChainTest, Check_FolderRecreated_IsNotTheSame) {
  test::WriteImage(mount_.File("pool/disk"));
  const FolderChain trail = TrailAt(mount_.File("pool/disk"));
  EXPECT_EQ(CheckFolderChain(trail).finding, Finding::kSame);
  // Many a file system gives the inode's number out again immediately; its clock ticks every 10 ms at most.
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  fs::remove_all(mount_.File("pool"));
  test::WriteImage(mount_.File("pool/disk"));
  EXPECT_NE(TrailAt(mount_.File("pool/disk")), trail);
  const FolderChainCheck check = CheckFolderChain(trail);
  EXPECT_EQ(check.finding, Finding::kNotMounted);
  EXPECT_THAT(check.folders, ElementsAre(mount_.File("pool")));
  EXPECT_EQ(check.reason, "the folder '" + mount_.File("pool") + "' is not the folder that holds its disks");
}

TEST_F(FolderChainTest, Check_FolderMissing_IsGoneOnlyIfParentIsSame) {
  test::WriteImage(mount_.File("pool/web/disk"));
  const FolderChain trail = TrailAt(mount_.File("pool/web/disk"));
  fs::remove_all(mount_.File("pool"));
  const FolderChainCheck gone = CheckFolderChain(trail);
  EXPECT_EQ(gone.finding, Finding::kFolderGone);
  EXPECT_THAT(gone.folders, ElementsAre(mount_.File("pool"), mount_.File("pool/web")));
  FolderChain without_parent = trail;
  without_parent.erase(mount_.File("pool"));
  EXPECT_EQ(CheckFolderChain(without_parent).finding, Finding::kNotMounted);
  fs::remove_all(mount_.path());
  EXPECT_EQ(CheckFolderChain(trail).finding, Finding::kNotMounted) << "nothing is known of a missing root";
  EXPECT_EQ(CheckFolderChain({}).finding, Finding::kSame);
}

TEST_F(FolderChainTest, Check_FolderRenamedAndBack_IsTheSame) {
  test::WriteImage(mount_.File("pool/disk"));
  const FolderChain trail = TrailAt(mount_.File("pool/disk"));
  fs::rename(mount_.File("pool"), mount_.File("away"));
  EXPECT_EQ(CheckFolderChain(trail).finding, Finding::kFolderGone);
  fs::rename(mount_.File("away"), mount_.File("pool"));
  EXPECT_EQ(CheckFolderChain(trail).finding, Finding::kSame);
}

TEST_F(FolderChainTest, Check_PathIsLinkOrFile_IsNotMounted) {
  test::WriteImage(mount_.File("pool/disk"));
  const FolderChain trail = TrailAt(mount_.File("pool/disk"));
  fs::rename(mount_.File("pool"), mount_.File("away"));
  fs::create_directory_symlink("away", mount_.File("pool"));
  EXPECT_EQ(CheckFolderChain(trail).finding, Finding::kNotMounted) << "a link";
  fs::remove(mount_.File("pool"));
  test::WriteImage(mount_.File("pool"));
  EXPECT_EQ(CheckFolderChain(trail).finding, Finding::kNotMounted) << "a file";
}

class MountedFolderChainTest : public FolderChainTest {
 protected:
  void SetUp() override {
    if (!test::CanMount()) GTEST_SKIP() << test::kCannotMount;
  }
};

TEST_F(MountedFolderChainTest, Check_Unmounted_IsNotMountedUntilMounted) {
  test::MountPoint kept("kept");
  ASSERT_TRUE(kept.MountTmpfs());
  ASSERT_TRUE(mount_.Bind(kept.path()));
  test::WriteImage(mount_.File("pool/disk"));
  const FolderChain trail = TrailAt(mount_.File("pool/disk"));
  EXPECT_EQ(CheckFolderChain(trail).finding, Finding::kSame);
  ASSERT_TRUE(mount_.Unmount());
  const FolderChainCheck check = CheckFolderChain(trail);
  EXPECT_EQ(check.finding, Finding::kNotMounted);
  EXPECT_THAT(check.folders, ElementsAre(mount_.path() + "/"));
  // The folder below the mount point was created meanwhile.
  test::WriteImage(mount_.File("pool/disk"));
  EXPECT_EQ(CheckFolderChain(trail).finding, Finding::kNotMounted);
  ASSERT_TRUE(mount_.Bind(kept.path()));
  EXPECT_EQ(CheckFolderChain(trail).finding, Finding::kSame);
  ASSERT_TRUE(mount_.Unmount());
  ASSERT_TRUE(mount_.MountTmpfs());
  EXPECT_EQ(CheckFolderChain(trail).finding, Finding::kNotMounted) << "another file system";
}

TEST_F(MountedFolderChainTest, Check_UnmountedBelowRoot_IsNotMounted) {
  test::WriteImage(mount_.File("other/disk"));
  const test::MountPoint kept("kept");
  test::WriteImage(kept.File("disk"));
  fs::create_directory(mount_.File("pool"));
  ASSERT_EQ(::mount(kept.path().c_str(), mount_.File("pool").c_str(), nullptr, MS_BIND, nullptr), 0);
  const FolderChain trail = TrailAt(mount_.File("pool/disk"));
  EXPECT_EQ(CheckFolderChain(trail).finding, Finding::kSame);
  ASSERT_EQ(::umount2(mount_.File("pool").c_str(), MNT_DETACH), 0);
  EXPECT_EQ(CheckFolderChain(trail).finding, Finding::kNotMounted);
  EXPECT_EQ(CheckFolderChain(TrailAt(mount_.File("other/disk"))).finding, Finding::kSame);
}

// Both folders, and the mount point, are in one file system.
TEST_F(MountedFolderChainTest, Check_OtherFolderBindMounted_IsNotMounted) {
  const test::MountPoint kept("kept");
  test::WriteImage(kept.File("one/disk"));
  test::WriteImage(kept.File("other/disk"));
  ASSERT_TRUE(mount_.Bind(kept.File("one")));
  const FolderChain trail = TrailAt(mount_.File("disk"));
  ASSERT_TRUE(mount_.Unmount());
  EXPECT_EQ(CheckFolderChain(trail).finding, Finding::kNotMounted);
  ASSERT_TRUE(mount_.Bind(kept.File("other")));
  EXPECT_EQ(CheckFolderChain(trail).finding, Finding::kNotMounted);
  ASSERT_TRUE(mount_.Unmount());
  ASSERT_TRUE(mount_.Bind(kept.File("one")));
  EXPECT_EQ(CheckFolderChain(trail).finding, Finding::kSame);
}

TEST_F(MountedFolderChainTest, Check_MountMoved_IsNotMountedHereButSameThere) {
  ASSERT_TRUE(mount_.MountTmpfs());
  test::WriteImage(mount_.File("pool/disk"));
  const FolderChain trail = TrailAt(mount_.File("pool/disk"));
  const test::MountPoint elsewhere("elsewhere");
  ASSERT_EQ(::mount(mount_.path().c_str(), elsewhere.path().c_str(), nullptr, MS_MOVE, nullptr), 0);
  EXPECT_EQ(CheckFolderChain(trail).finding, Finding::kNotMounted);
  const FolderChain there = test::Require(ReadFolderChain({elsewhere.path()}, elsewhere.File("pool/disk")));
  EXPECT_EQ(there.at(elsewhere.File("pool")), trail.at(mount_.File("pool")));
}

TEST_F(FolderChainTest, Check_FolderUnreadable_IsNotMountedWithReason) {
  FolderChain trail = TrailAt(mount_.File("disk"));
  const std::string too_long = mount_.File(std::string(300, 'x'));
  trail.emplace(too_long, "ino=2 fsid=1");
  const FolderChainCheck check = CheckFolderChain(trail);
  EXPECT_EQ(check.finding, Finding::kNotMounted);
  EXPECT_THAT(check.folders, ElementsAre(too_long));
  EXPECT_THAT(check.reason, HasSubstr("cannot be examined: "));
}

}  // namespace
}  // namespace vexa::storage
