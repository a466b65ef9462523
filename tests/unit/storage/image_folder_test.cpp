// Folders for images: their rights, and that none takes the place of one that is not mounted.
#include "host/storage/image_folder.h"

#include <gtest/gtest.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "tests/support/require.h"
#include "tests/unit/storage/storage_watch_fixture.h"

namespace vexa::storage {
namespace {

constexpr char kSystem[] = "qemu:///system";

struct stat StatOf(const std::string& path) {
  struct stat info {};
  EXPECT_EQ(::stat(path.c_str(), &info), 0) << path;
  return info;
}

TEST(QemuAccess, Account_OfItsOwn_GetsGroupOrPassage) {
  for (const char* hypervisor : {"test", "none", "qemu:///session", "xen:///system"}) {
    const QemuAccess access = QemuAccessFor(hypervisor, "daemon");
    EXPECT_FALSE(access.group) << hypervisor;
    EXPECT_EQ(access.folder_mode, 0700u) << hypervisor;
    EXPECT_EQ(access.file_mode, 0644u) << hypervisor;
  }
  const QemuAccess unknown = QemuAccessFor(kSystem, "no-such-account");
  EXPECT_FALSE(unknown.group);
  EXPECT_EQ(unknown.folder_mode, 0711u);
  if (::geteuid() != 0) GTEST_SKIP() << "not root";
  for (const char* hypervisor : {kSystem, "qemu+unix:///system", "embed"}) {
    const QemuAccess access = QemuAccessFor(hypervisor, "daemon");
    ASSERT_TRUE(access.group) << hypervisor;
    EXPECT_EQ(*access.group, ::getpwnam("daemon")->pw_gid);
    EXPECT_EQ(access.folder_mode, 0750u);
    EXPECT_EQ(access.file_mode, 0640u);
  }
}

class ImageFolderTest : public WatchedStorage {
 protected:
  Status Make(const std::string& root, const std::string& name, const QemuAccess& access = {}) {
    return MakeImageFolder(host_.store(), kHost, root, name, access);
  }
};

TEST_F(ImageFolderTest, Missing_IsMadeWithRootAndRights) {
  const std::string root = mount_.File("root");
  ASSERT_TRUE(Make(root, kPool, {std::nullopt, 0711, 0644}));
  EXPECT_EQ(StatOf(root).st_mode & 0777, 0711u);
  EXPECT_EQ(StatOf(root + "/" + kPool).st_mode & 0777, 0711u);
  // What exists is left as it is.
  ASSERT_TRUE(Make(root, kPool, {std::nullopt, 0700, 0644}));
  EXPECT_EQ(StatOf(root).st_mode & 0777, 0711u);
  if (::geteuid() != 0) GTEST_SKIP() << "not root";
  ASSERT_TRUE(Make(root, "other", QemuAccessFor(kSystem, "daemon")));
  EXPECT_EQ(StatOf(root + "/other").st_mode & 0777, 0750u);
  EXPECT_EQ(StatOf(root + "/other").st_gid, ::getpwnam("daemon")->pw_gid);
}

TEST_F(ImageFolderTest, NewFolder_HasItsModeWhateverTheUmask) {
  for (const mode_t mask : {0U, 022U, 077U}) {
    const std::string path = mount_.File(std::to_string(mask));
    const mode_t before = ::umask(mask);
    const Status made = MakeFolder(path, {std::nullopt, 0711, 0644});
    ::umask(before);
    ASSERT_TRUE(made) << made.error().ToString();
    EXPECT_EQ(StatOf(path).st_mode & 07777, 0711U);
  }
}

TEST_F(ImageFolderTest, FolderOfOlderVersion_GetsTheMode) {
  const std::string path = mount_.File("pool");
  ASSERT_EQ(::mkdir(path.c_str(), 0700), 0);
  ASSERT_TRUE(MakeFolder(path, {}));
  EXPECT_EQ(StatOf(path).st_mode & 07777, 0700U) << "QEMU runs as this process";
  ASSERT_TRUE(MakeFolder(path, {std::nullopt, 0711, 0644}));
  EXPECT_EQ(StatOf(path).st_mode & 07777, 0711U);
}

TEST_F(ImageFolderTest, ModeChosenByAdministrator_Stays) {
  const std::string path = mount_.File("pool");
  ASSERT_EQ(::mkdir(path.c_str(), 0700), 0);
  for (const mode_t mode : {0750U, 0755U, 02770U}) {
    ASSERT_EQ(::chmod(path.c_str(), mode), 0);
    ASSERT_TRUE(MakeFolder(path, {std::nullopt, 0711, 0644}));
    EXPECT_EQ(StatOf(path).st_mode & 07777, mode);
  }
}

TEST_F(ImageFolderTest, LinkToFolder_DoesNotChangeItsMode) {
  ASSERT_EQ(::mkdir(mount_.File("elsewhere").c_str(), 0700), 0);
  ASSERT_EQ(::symlink(mount_.File("elsewhere").c_str(), mount_.File("pool").c_str()), 0);
  EXPECT_TRUE(MakeFolder(mount_.File("pool"), {std::nullopt, 0711, 0644}));
  EXPECT_EQ(StatOf(mount_.File("elsewhere")).st_mode & 07777, 0700U);
}

TEST_F(ImageFolderTest, FolderAboveRoot_IsNotMade) {
  const Status made = Make(mount_.File("absent/root"), kPool);
  ASSERT_FALSE(made);
  EXPECT_EQ(made.error().ToString(),
            "The folder '" + mount_.File("absent/root") + "' cannot be made: No such file or directory");
}

TEST_F(ImageFolderTest, File_InPlaceOfFolder_IsAnError) {
  std::ofstream(mount_.File("root")) << "a file";
  const Status made = Make(mount_.File("root"), "");
  ASSERT_FALSE(made);
  EXPECT_EQ(made.error().ToString(), "The folder '" + mount_.File("root") + "' cannot be made: Not a directory");
}

TEST_F(ImageFolderTest, KnownFolder_NotMounted_IsNotReplaced) {
  const std::string root = mount_.File("root");
  ASSERT_TRUE(Make(root, kPool));
  StorageOptions options = Options();
  options.roots = {root};
  StorageWatch(options).Refresh();  // learns the folders
  std::filesystem::rename(root, mount_.File("elsewhere"));
  for (const char* name : {"", kPool, "new"}) {
    const Status made = Make(root, name);
    ASSERT_FALSE(made) << name;
    EXPECT_EQ(made.error().code(), ErrorCode::kUnavailable);
    EXPECT_EQ(made.error().ToString(), "The storage is not mounted: there is no folder '" + root + "/'");
  }
  EXPECT_FALSE(std::filesystem::exists(root));
  std::filesystem::create_directory(root);
  EXPECT_FALSE(Make(root, "new")) << "another folder";
  std::filesystem::remove(root);
  std::filesystem::rename(mount_.File("elsewhere"), root);
  EXPECT_TRUE(Make(root, "new"));
}

}  // namespace
}  // namespace vexa::storage
