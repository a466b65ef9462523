#include "host/disks/disk_files.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include "tests/unit/guests/guest_deletion_environment.h"

namespace vexa::test {
namespace {

using disks::DiskFiles;
using disks::FileSystemCalls;
using disks::NormalPath;

TEST(NormalPathOf, NormalPath_PossibleFile_HasNoEmptySegments) {
  EXPECT_EQ(NormalPath("/a"), "/a");
  EXPECT_EQ(NormalPath("//a///b"), "/a/b");
  EXPECT_EQ(NormalPath("/./a/./b"), "/a/b");
  EXPECT_EQ(NormalPath("/..a/b../..."), "/..a/b../...");
}

TEST(NormalPathOf, NormalPath_ImpossibleFile_IsAbsent) {
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
    FileSystemCalls calls;
    calls.resolve = GetParam();
    return DiskFiles(roots, calls);
  }
  DiskFiles Files() const { return Files({environment_.folder().File("images")}); }
  static DiskFiles::Kind KindOf(const DiskFiles& files, const std::string& path) {
    return Require(files.Examine(path)).kind;
  }

  const DeletionEnvironment environment_;
};

TEST_P(DiskFilesBy, Examine_OnlyRegularFilesBelowRoots_AreAccepted) {
  WriteFile(environment_.Image("x"));
  WriteFile(environment_.Image("deep/er/x"));
  WriteFile(environment_.Outside("x"));
  std::filesystem::create_symlink("x", environment_.Image("link"));
  std::filesystem::create_symlink("none", environment_.Image("broken"));
  std::filesystem::create_directory_symlink("deep", environment_.Image("folder"));
  std::filesystem::create_directory_symlink(environment_.Outside(""), environment_.Image("out"));
  std::filesystem::create_directory_symlink("loop", environment_.Image("loop"));
  const DiskFiles files = Files();
  for (const char* name : {"x", "deep/er/x"})
    EXPECT_EQ(KindOf(files, environment_.Image(name)), DiskFiles::Kind::kRegular);
  for (const char* name : {"none", "none/x", "x/y", "deep/none/x"}) {
    EXPECT_EQ(KindOf(files, environment_.Image(name)), DiskFiles::Kind::kMissing) << name;
  }
  for (const char* name : {"link", "broken", "folder/er/x", "out/x", "loop/x", "deep", "deep/er"}) {
    EXPECT_EQ(KindOf(files, environment_.Image(name)), DiskFiles::Kind::kUntouchable) << name;
  }
  EXPECT_EQ(Require(files.Examine(environment_.Image("out/x"))).reason, "it is reached through a symbolic link");
  EXPECT_EQ(Require(files.Examine(environment_.Image("folder/er/x"))).reason, "it is reached through a symbolic link");
  EXPECT_EQ(KindOf(files, environment_.Outside("x")), DiskFiles::Kind::kUntouchable);
  EXPECT_EQ(KindOf(files, environment_.folder().File("images")), DiskFiles::Kind::kUntouchable)
      << "a root is not below itself";
  EXPECT_EQ(KindOf(files, "/etc/passwd"), DiskFiles::Kind::kUntouchable);
}

TEST_P(DiskFilesBy, Roots_AnySpelling_AreUnderstood) {
  WriteFile(environment_.Image("x"));
  WriteFile(environment_.Image("deep/x"));
  std::filesystem::create_directory_symlink(environment_.Image(""), environment_.folder().File("alias"));
  std::filesystem::create_directory_symlink("deep", environment_.Image("inner"));
  const std::string images = environment_.folder().File("images");
  for (const std::string& root : {images, images + "//", images + "/./", std::string("/"), std::string("///")}) {
    EXPECT_EQ(KindOf(Files({root}), environment_.Image("x")), DiskFiles::Kind::kRegular) << root;
  }
  // A root itself may be a link, also one below another root.
  EXPECT_EQ(KindOf(Files({environment_.folder().File("alias")}), environment_.folder().File("alias/x")),
            DiskFiles::Kind::kRegular);
  EXPECT_EQ(KindOf(Files({images}), environment_.Image("inner/x")), DiskFiles::Kind::kUntouchable);
  EXPECT_EQ(KindOf(Files({images, environment_.Image("inner")}), environment_.Image("inner/x")),
            DiskFiles::Kind::kRegular);
  EXPECT_EQ(KindOf(Files({}), environment_.Image("x")), DiskFiles::Kind::kUntouchable);
  EXPECT_EQ(KindOf(Files({environment_.folder().File("gone")}), environment_.folder().File("gone/x")),
            DiskFiles::Kind::kMissing);
}

TEST_P(DiskFilesBy, HideAndUnhide_File_IsUnchanged) {
  WriteFile(environment_.Image("deep/x"), "data");
  const std::string path = environment_.Image("deep/x");
  const DiskFiles files = Files();
  ASSERT_TRUE(files.Hide(path, ".h"));
  EXPECT_EQ(environment_.Files(), (Texts{{environment_.Image("deep/.h"), "data"}}));
  EXPECT_EQ(files.Hide(path, ".h").error().code(), ErrorCode::kNotFound);
  ASSERT_TRUE(files.Sync(path));
  WriteFile(path, "other");
  EXPECT_EQ(files.Hide(path, ".h").error().code(), ErrorCode::kConflict);
  EXPECT_EQ(files.Unhide(path, ".h").error().code(), ErrorCode::kConflict);
  ASSERT_TRUE(files.Remove(path));
  ASSERT_TRUE(files.Unhide(path, ".h"));
  EXPECT_EQ(environment_.Files(), (Texts{{path, "data"}}));
  EXPECT_EQ(files.RemoveHidden(path, ".h").error().code(), ErrorCode::kNotFound);
  ASSERT_TRUE(files.Hide(path, ".h"));
  ASSERT_TRUE(files.RemoveHidden(path, ".h"));
  EXPECT_THAT(environment_.Files(), testing::IsEmpty());
  std::filesystem::remove(environment_.Image("deep"));
  EXPECT_TRUE(files.Sync(path));
}

TEST_P(DiskFilesBy, ForeignFiles_AreNeitherRenamedNorRemoved) {
  WriteFile(environment_.Outside("x"));
  std::filesystem::create_symlink(environment_.Outside("x"), environment_.Image("link"));
  std::filesystem::create_directory_symlink(environment_.Outside(""), environment_.Image("out"));
  const Texts before = environment_.Files();
  const DiskFiles files = Files();
  for (const std::string& path : {environment_.Outside("x"), environment_.Image("link"), environment_.Image("out/x")}) {
    EXPECT_EQ(files.Hide(path, ".h").error().code(), ErrorCode::kInvalid);
    EXPECT_EQ(files.Remove(path).error().code(), ErrorCode::kInvalid);
  }
  EXPECT_EQ(files.Sync(environment_.Image("out/x")).error().code(), ErrorCode::kInvalid);
  EXPECT_EQ(environment_.Files(), before);
}

INSTANTIATE_TEST_SUITE_P(BothWays, DiskFilesBy, testing::Values(ResolvePath::kBySystem, ResolvePath::kByWalking),
                         [](const auto& way) { return way.param == ResolvePath::kBySystem ? "System" : "Walking"; });

}  // namespace
}  // namespace vexa::test
