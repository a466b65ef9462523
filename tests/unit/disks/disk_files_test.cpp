#include "host/disks/disk_files.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include "tests/unit/guests/guest_deletion_ground.h"

namespace vexa::test {
namespace {

using guests::DiskFiles;
using guests::FileCalls;
using guests::NormalPath;

TEST(NormalPathOf, WhatCanBeAFile_HasNoEmptySegments) {
  EXPECT_EQ(NormalPath("/a"), "/a");
  EXPECT_EQ(NormalPath("//a///b"), "/a/b");
  EXPECT_EQ(NormalPath("/./a/./b"), "/a/b");
  EXPECT_EQ(NormalPath("/..a/b../..."), "/..a/b../...");
}

TEST(NormalPathOf, WhatCannot_HasNone) {
  for (const std::string& path : {std::string(), std::string("a"), std::string("/"), std::string("/a/"),
                                  std::string("/.."), std::string("/a/../b"), std::string("/a/."), std::string("/a/.."),
                                  std::string("/a\0b", 4), "/" + std::string(5000, 'a')}) {
    EXPECT_FALSE(NormalPath(path)) << path;
  }
}

// Both ways of finding a file.
class DiskFilesBy : public testing::TestWithParam<ResolvePath> {
 protected:
  DiskFiles Files(const std::vector<std::string>& roots) const {
    FileCalls calls;
    calls.resolve = GetParam();
    return DiskFiles(roots, calls);
  }
  DiskFiles Files() const { return Files({ground_.folder().File("images")}); }
  static DiskFiles::Kind KindOf(const DiskFiles& files, const std::string& path) {
    return Require(files.Examine(path)).kind;
  }

  const DeletionGround ground_;
};

TEST_P(DiskFilesBy, OnlyRegularFilesBelowTheRoots_AreOurs) {
  WriteFile(ground_.Image("x"));
  WriteFile(ground_.Image("deep/er/x"));
  WriteFile(ground_.Outside("x"));
  std::filesystem::create_symlink("x", ground_.Image("link"));
  std::filesystem::create_symlink("none", ground_.Image("broken"));
  std::filesystem::create_directory_symlink("deep", ground_.Image("folder"));
  std::filesystem::create_directory_symlink(ground_.Outside(""), ground_.Image("out"));
  std::filesystem::create_directory_symlink("loop", ground_.Image("loop"));
  const DiskFiles files = Files();
  for (const char* name : {"x", "deep/er/x"}) EXPECT_EQ(KindOf(files, ground_.Image(name)), DiskFiles::Kind::kRegular);
  for (const char* name : {"none", "none/x", "x/y", "deep/none/x"}) {
    EXPECT_EQ(KindOf(files, ground_.Image(name)), DiskFiles::Kind::kMissing) << name;
  }
  for (const char* name : {"link", "broken", "folder/er/x", "out/x", "loop/x", "deep", "deep/er"}) {
    EXPECT_EQ(KindOf(files, ground_.Image(name)), DiskFiles::Kind::kLeft) << name;
  }
  EXPECT_EQ(Require(files.Examine(ground_.Image("out/x"))).why, "it is reached through a symbolic link");
  EXPECT_EQ(Require(files.Examine(ground_.Image("folder/er/x"))).why, "it is reached through a symbolic link");
  EXPECT_EQ(KindOf(files, ground_.Outside("x")), DiskFiles::Kind::kLeft);
  EXPECT_EQ(KindOf(files, ground_.folder().File("images")), DiskFiles::Kind::kLeft) << "a root is not below itself";
  EXPECT_EQ(KindOf(files, "/etc/passwd"), DiskFiles::Kind::kLeft);
}

TEST_P(DiskFilesBy, Roots_AreUnderstoodHoweverTheyAreWritten) {
  WriteFile(ground_.Image("x"));
  WriteFile(ground_.Image("deep/x"));
  std::filesystem::create_directory_symlink(ground_.Image(""), ground_.folder().File("alias"));
  std::filesystem::create_directory_symlink("deep", ground_.Image("inner"));
  const std::string images = ground_.folder().File("images");
  for (const std::string& root : {images, images + "//", images + "/./", std::string("/"), std::string("///")}) {
    EXPECT_EQ(KindOf(Files({root}), ground_.Image("x")), DiskFiles::Kind::kRegular) << root;
  }
  // A root itself may be a link, also one below another root.
  EXPECT_EQ(KindOf(Files({ground_.folder().File("alias")}), ground_.folder().File("alias/x")),
            DiskFiles::Kind::kRegular);
  EXPECT_EQ(KindOf(Files({images}), ground_.Image("inner/x")), DiskFiles::Kind::kLeft);
  EXPECT_EQ(KindOf(Files({images, ground_.Image("inner")}), ground_.Image("inner/x")), DiskFiles::Kind::kRegular);
  EXPECT_EQ(KindOf(Files({}), ground_.Image("x")), DiskFiles::Kind::kLeft);
  EXPECT_EQ(KindOf(Files({ground_.folder().File("gone")}), ground_.folder().File("gone/x")), DiskFiles::Kind::kMissing);
}

TEST_P(DiskFilesBy, HiddenAndShown_IsTheSameFile) {
  WriteFile(ground_.Image("deep/x"), "data");
  const std::string path = ground_.Image("deep/x");
  const DiskFiles files = Files();
  ASSERT_TRUE(files.Hide(path, ".h"));
  EXPECT_EQ(ground_.Files(), (Texts{{ground_.Image("deep/.h"), "data"}}));
  EXPECT_EQ(files.Hide(path, ".h").error().code(), ErrorCode::kNotFound);
  ASSERT_TRUE(files.Sync(path));
  WriteFile(path, "other");
  EXPECT_EQ(files.Hide(path, ".h").error().code(), ErrorCode::kConflict);
  EXPECT_EQ(files.Show(path, ".h").error().code(), ErrorCode::kConflict);
  ASSERT_TRUE(files.Remove(path));
  ASSERT_TRUE(files.Show(path, ".h"));
  EXPECT_EQ(ground_.Files(), (Texts{{path, "data"}}));
  EXPECT_EQ(files.RemoveHidden(path, ".h").error().code(), ErrorCode::kNotFound);
  ASSERT_TRUE(files.Hide(path, ".h"));
  ASSERT_TRUE(files.RemoveHidden(path, ".h"));
  EXPECT_THAT(ground_.Files(), testing::IsEmpty());
  std::filesystem::remove(ground_.Image("deep"));
  EXPECT_TRUE(files.Sync(path));
}

TEST_P(DiskFilesBy, ForeignFiles_AreNeitherRenamedNorRemoved) {
  WriteFile(ground_.Outside("x"));
  std::filesystem::create_symlink(ground_.Outside("x"), ground_.Image("link"));
  std::filesystem::create_directory_symlink(ground_.Outside(""), ground_.Image("out"));
  const Texts before = ground_.Files();
  const DiskFiles files = Files();
  for (const std::string& path : {ground_.Outside("x"), ground_.Image("link"), ground_.Image("out/x")}) {
    EXPECT_EQ(files.Hide(path, ".h").error().code(), ErrorCode::kInvalid);
    EXPECT_EQ(files.Remove(path).error().code(), ErrorCode::kInvalid);
  }
  EXPECT_EQ(files.Sync(ground_.Image("out/x")).error().code(), ErrorCode::kInvalid);
  EXPECT_EQ(ground_.Files(), before);
}

INSTANTIATE_TEST_SUITE_P(BothWays, DiskFilesBy, testing::Values(ResolvePath::kBySystem, ResolvePath::kByWalking),
                         [](const auto& way) { return way.param == ResolvePath::kBySystem ? "System" : "Walking"; });

}  // namespace
}  // namespace vexa::test
