#include "host/storage/storage_trail.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <thread>

#include "host/base/json_parse.h"
#include "json/readers.h"
#include "tests/support/require.h"
#include "tests/unit/storage/storage_ground.h"

namespace vexa::guests {
namespace {

using Outcome = TrailCheck::Outcome;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

namespace fs = std::filesystem;

TEST(FolderIdentityText, RoundTrip_KeepsAllMembers) {
  for (const FolderIdentity& identity :
       {FolderIdentity{2, "1700000000.000000001", 0x8f3a}, FolderIdentity{~0ULL, std::nullopt, 0},
        FolderIdentity{0, "-1.999999999", ~0ULL}}) {
    const auto parsed = ParseIdentity(IdentityText(identity));
    ASSERT_TRUE(parsed) << IdentityText(identity);
    EXPECT_EQ(IdentityText(*parsed), IdentityText(identity));
    EXPECT_TRUE(IsSameFolder(*parsed, identity));
  }
  EXPECT_EQ(IdentityText({2, "1.000000001", 0x8f3a}), "ino=2 fsid=8f3a born=1.000000001");
}

TEST(FolderIdentityText, OtherTexts_AreNotIdentities) {
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
TEST_P(SameFolder, IsDecidedByInodeAndBirth_ElseByFileSystem) {
  EXPECT_EQ(IsSameFolder(GetParam().one, GetParam().other), GetParam().is_same);
  EXPECT_EQ(IsSameFolder(GetParam().other, GetParam().one), GetParam().is_same);
}

TEST(TrailOfJson, RoundTrip_KeepsFolders) {
  const Trail trail{{"/srv/", "ino=2 fsid=1"}, {"/srv/\xC3\xA4 \"b\"", "ino=3 fsid=1"}};
  const auto text = VexaVirtualization::json::ToText(TrailJson(trail));
  EXPECT_EQ(TrailFromJson(test::Require(ParseJson(text))), trail);
}

TEST(TrailOfJson, HostileValues_AreReadAndNeverTheSame) {
  for (const char* text : {"null", "[]", "7", "\"/srv/\"", "{}"}) {
    EXPECT_THAT(TrailFromJson(test::Require(ParseJson(text))), IsEmpty()) << text;
  }
  for (const char* text :
       {R"({"/": 7})", R"({"/": null})", R"({"/": {"/": "ino=2 fsid=1"}})", R"({"": "ino=2 fsid=1"})",
        R"({"/tmp": "ino=2 fsid=1"})", R"({"tmp/": "ino=2 fsid=1"})", R"({"/../": "ino=2 fsid=1"})",
        R"({"/tmp/../": "ino=2 fsid=1"})", R"({"/\u0000/": "ino=2 fsid=1"})", R"({"//": "ino=2 fsid=1"})"}) {
    EXPECT_EQ(CheckTrail(TrailFromJson(test::Require(ParseJson(text)))).outcome, Outcome::kNotMounted) << text;
  }
}

TEST(TrailFoldersTest, Path_HasTheFoldersFromTheLongestRootDown) {
  const std::vector<std::string> roots{"/srv", "/srv/images/", "relative", ""};
  EXPECT_THAT(TrailFolders(roots, "/srv/images/a/b/disk.raw"),
              ElementsAre("/srv/images/", "/srv/images/a", "/srv/images/a/b"));
  EXPECT_THAT(TrailFolders(roots, "/srv//./a/disk.raw"), ElementsAre("/srv/", "/srv/a"));
  EXPECT_THAT(TrailFolders(roots, "/srv/images/disk.raw"), ElementsAre("/srv/images/"));
  EXPECT_THAT(TrailFolders({"/"}, "/a/disk.raw"), ElementsAre("/", "/a"));
  for (const char* path : {"", "/", "disk.raw", "/srv/../srv/x", "/srvx/disk", "/srv/images/", "/etc/x"}) {
    EXPECT_THAT(TrailFolders(roots, path), IsEmpty()) << path;
  }
}

TEST(TrailFoldersTest, PartOf_HasTheEntriesOfThePathAlone) {
  const Trail known{{"/srv/", "1"}, {"/srv/a", "2"}, {"/srv/b", "3"}};
  EXPECT_EQ(PartOf(known, {"/srv"}, "/srv/a/x/disk"), (Trail{{"/srv/", "1"}, {"/srv/a", "2"}}));
  EXPECT_EQ(PartOf(known, {"/srv"}, "/var/disk"), Trail());
}

class TrailTest : public ::testing::Test {
 protected:
  Trail TrailAt(const std::string& path) const { return test::Require(TrailOf(Roots(), path)); }
  std::vector<std::string> Roots() const { return {ground_.path()}; }

  test::MountGround ground_{"images"};
};

TEST_F(TrailTest, Trail_ExistingFoldersAndFile_AreFound) {
  test::WriteImage(ground_.File("pool/web/disk"));
  const auto look = test::Require(LookAlong(Roots(), ground_.File("pool/web/disk")));
  EXPECT_EQ(look.folders.size(), 3u);
  EXPECT_TRUE(look.has_file);
  EXPECT_TRUE(ParseIdentity(look.folders.at(ground_.path() + "/")));
  const auto missing = test::Require(LookAlong(Roots(), ground_.File("pool/mail/disk")));
  EXPECT_EQ(missing.folders.size(), 2u);
  EXPECT_FALSE(missing.has_file);
  EXPECT_FALSE(test::Require(LookAlong(Roots(), ground_.File("pool/web"))).has_file) << "a folder is not a file";
  fs::remove_all(ground_.path());
  EXPECT_THAT(TrailAt(ground_.File("pool/web/disk")), IsEmpty());
}

TEST_F(TrailTest, Trail_LinkBelowRoot_IsRefused) {
  test::WriteImage(ground_.File("pool/disk"));
  fs::create_directory_symlink(ground_.path(), ground_.folder().File("link"));
  fs::create_directory_symlink("pool", ground_.File("below"));
  const std::string root = ground_.folder().File("link");
  const auto through_root = LookAlong({root}, root + "/pool/disk");
  ASSERT_TRUE(through_root);
  EXPECT_TRUE(through_root->has_file);
  EXPECT_EQ(CheckTrail(through_root->folders).outcome, Outcome::kSame);
  const auto through_link = LookAlong(Roots(), ground_.File("below/disk"));
  ASSERT_FALSE(through_link);
  EXPECT_EQ(through_link.error().code(), ErrorCode::kInvalid);
  EXPECT_FALSE(LookAlong(Roots(), "/etc/passwd"));
}

TEST_F(TrailTest, Check_FolderMadeAgain_IsNotTheSame) {
  test::WriteImage(ground_.File("pool/disk"));
  const Trail trail = TrailAt(ground_.File("pool/disk"));
  EXPECT_EQ(CheckTrail(trail).outcome, Outcome::kSame);
  // Many a file system gives the inode's number out again immediately; its clock ticks every 10 ms at most.
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  fs::remove_all(ground_.File("pool"));
  test::WriteImage(ground_.File("pool/disk"));
  EXPECT_NE(TrailAt(ground_.File("pool/disk")), trail);
  const TrailCheck check = CheckTrail(trail);
  EXPECT_EQ(check.outcome, Outcome::kNotMounted);
  EXPECT_THAT(check.folders, ElementsAre(ground_.File("pool")));
  EXPECT_EQ(check.reason, "the folder '" + ground_.File("pool") + "' is not the folder that holds its disks");
}

TEST_F(TrailTest, Check_MissingFolder_IsGoneOnlyWhereItsParentIsTheSame) {
  test::WriteImage(ground_.File("pool/web/disk"));
  const Trail trail = TrailAt(ground_.File("pool/web/disk"));
  fs::remove_all(ground_.File("pool"));
  const TrailCheck gone = CheckTrail(trail);
  EXPECT_EQ(gone.outcome, Outcome::kFolderGone);
  EXPECT_THAT(gone.folders, ElementsAre(ground_.File("pool"), ground_.File("pool/web")));
  Trail without_parent = trail;
  without_parent.erase(ground_.File("pool"));
  EXPECT_EQ(CheckTrail(without_parent).outcome, Outcome::kNotMounted);
  fs::remove_all(ground_.path());
  EXPECT_EQ(CheckTrail(trail).outcome, Outcome::kNotMounted) << "nothing is known of a missing root";
  EXPECT_EQ(CheckTrail({}).outcome, Outcome::kSame);
}

TEST_F(TrailTest, Check_FolderRenamedAndBack_IsTheSame) {
  test::WriteImage(ground_.File("pool/disk"));
  const Trail trail = TrailAt(ground_.File("pool/disk"));
  fs::rename(ground_.File("pool"), ground_.File("away"));
  EXPECT_EQ(CheckTrail(trail).outcome, Outcome::kFolderGone);
  fs::rename(ground_.File("away"), ground_.File("pool"));
  EXPECT_EQ(CheckTrail(trail).outcome, Outcome::kSame);
}

TEST_F(TrailTest, Check_SomethingElseInThePlace_IsNotMounted) {
  test::WriteImage(ground_.File("pool/disk"));
  const Trail trail = TrailAt(ground_.File("pool/disk"));
  fs::rename(ground_.File("pool"), ground_.File("away"));
  fs::create_directory_symlink("away", ground_.File("pool"));
  EXPECT_EQ(CheckTrail(trail).outcome, Outcome::kNotMounted) << "a link";
  fs::remove(ground_.File("pool"));
  test::WriteImage(ground_.File("pool"));
  EXPECT_EQ(CheckTrail(trail).outcome, Outcome::kNotMounted) << "a file";
}

class MountedTrailTest : public TrailTest {
 protected:
  void SetUp() override {
    if (!test::CanMount()) GTEST_SKIP() << test::kCannotMount;
  }
};

TEST_F(MountedTrailTest, Check_Unmounted_IsNotMountedUntilItIsMountedAgain) {
  test::MountGround kept("kept");
  ASSERT_TRUE(kept.MountTmpfs());
  ASSERT_TRUE(ground_.Bind(kept.path()));
  test::WriteImage(ground_.File("pool/disk"));
  const Trail trail = TrailAt(ground_.File("pool/disk"));
  EXPECT_EQ(CheckTrail(trail).outcome, Outcome::kSame);
  ASSERT_TRUE(ground_.Unmount());
  const TrailCheck check = CheckTrail(trail);
  EXPECT_EQ(check.outcome, Outcome::kNotMounted);
  EXPECT_THAT(check.folders, ElementsAre(ground_.path() + "/"));
  // Somebody has made the folder below the mount point meanwhile.
  test::WriteImage(ground_.File("pool/disk"));
  EXPECT_EQ(CheckTrail(trail).outcome, Outcome::kNotMounted);
  ASSERT_TRUE(ground_.Bind(kept.path()));
  EXPECT_EQ(CheckTrail(trail).outcome, Outcome::kSame);
  ASSERT_TRUE(ground_.Unmount());
  ASSERT_TRUE(ground_.MountTmpfs());
  EXPECT_EQ(CheckTrail(trail).outcome, Outcome::kNotMounted) << "another file system";
}

TEST_F(MountedTrailTest, Check_UnmountedBelowTheRoot_IsNotMounted) {
  test::WriteImage(ground_.File("other/disk"));
  const test::MountGround kept("kept");
  test::WriteImage(kept.File("disk"));
  fs::create_directory(ground_.File("pool"));
  ASSERT_EQ(::mount(kept.path().c_str(), ground_.File("pool").c_str(), nullptr, MS_BIND, nullptr), 0);
  const Trail trail = TrailAt(ground_.File("pool/disk"));
  EXPECT_EQ(CheckTrail(trail).outcome, Outcome::kSame);
  ASSERT_EQ(::umount2(ground_.File("pool").c_str(), MNT_DETACH), 0);
  EXPECT_EQ(CheckTrail(trail).outcome, Outcome::kNotMounted);
  EXPECT_EQ(CheckTrail(TrailAt(ground_.File("other/disk"))).outcome, Outcome::kSame);
}

// Both folders, and the mount point, are in one file system.
TEST_F(MountedTrailTest, Check_OtherFolderOfTheSameFileSystemBound_IsNotMounted) {
  const test::MountGround kept("kept");
  test::WriteImage(kept.File("one/disk"));
  test::WriteImage(kept.File("other/disk"));
  ASSERT_TRUE(ground_.Bind(kept.File("one")));
  const Trail trail = TrailAt(ground_.File("disk"));
  ASSERT_TRUE(ground_.Unmount());
  EXPECT_EQ(CheckTrail(trail).outcome, Outcome::kNotMounted);
  ASSERT_TRUE(ground_.Bind(kept.File("other")));
  EXPECT_EQ(CheckTrail(trail).outcome, Outcome::kNotMounted);
  ASSERT_TRUE(ground_.Unmount());
  ASSERT_TRUE(ground_.Bind(kept.File("one")));
  EXPECT_EQ(CheckTrail(trail).outcome, Outcome::kSame);
}

TEST_F(MountedTrailTest, Check_MountMovedElsewhere_IsNotMountedHereAndTheSameThere) {
  ASSERT_TRUE(ground_.MountTmpfs());
  test::WriteImage(ground_.File("pool/disk"));
  const Trail trail = TrailAt(ground_.File("pool/disk"));
  const test::MountGround elsewhere("elsewhere");
  ASSERT_EQ(::mount(ground_.path().c_str(), elsewhere.path().c_str(), nullptr, MS_MOVE, nullptr), 0);
  EXPECT_EQ(CheckTrail(trail).outcome, Outcome::kNotMounted);
  const Trail there = test::Require(TrailOf({elsewhere.path()}, elsewhere.File("pool/disk")));
  EXPECT_EQ(there.at(elsewhere.File("pool")), trail.at(ground_.File("pool")));
}

TEST_F(TrailTest, CheckTrail_UnreadableFolder_IsNotMountedWithReason) {
  Trail trail = TrailAt(ground_.File("disk"));
  const std::string too_long = ground_.File(std::string(300, 'x'));
  trail.emplace(too_long, "ino=2 fsid=1");
  const TrailCheck check = CheckTrail(trail);
  EXPECT_EQ(check.outcome, Outcome::kNotMounted);
  EXPECT_THAT(check.folders, ElementsAre(too_long));
  EXPECT_THAT(check.reason, HasSubstr("cannot be looked at: "));
}

}  // namespace
}  // namespace vexa::guests
