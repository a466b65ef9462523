// The folder of a repository: QEMU, which runs as another user, reaches the disks in it.
#include "host/disks/repository_folder.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "tests/support/temp_dir.h"

namespace vexa::test {
namespace {

using disks::MakeRepositoryFolder;

mode_t ModeOf(const std::string& path) {
  struct stat status {};
  EXPECT_EQ(::stat(path.c_str(), &status), 0);
  return status.st_mode & 07777U;
}

TEST(RepositoryFolder, New_OthersMayPassWhateverTheUmask) {
  const TempDir folder;
  for (const mode_t mask : {0U, 022U, 077U}) {
    const std::string path = folder.File(std::to_string(mask));
    const mode_t before = ::umask(mask);
    const Status made = MakeRepositoryFolder(path);
    ::umask(before);
    ASSERT_TRUE(made) << made.error().message();
    EXPECT_EQ(ModeOf(path), 0711U);
  }
}

TEST(RepositoryFolder, FolderOfOlderVersion_GetsTheMode) {
  const TempDir folder;
  const std::string path = folder.File("pool");
  ASSERT_EQ(::mkdir(path.c_str(), 0700), 0);
  ASSERT_TRUE(MakeRepositoryFolder(path));
  EXPECT_EQ(ModeOf(path), 0711U);
}

TEST(RepositoryFolder, ModeThatSomebodyHasChosen_Stays) {
  const TempDir folder;
  const std::string path = folder.File("pool");
  for (const mode_t mode : {0750U, 0755U, 02770U}) {
    ASSERT_TRUE(MakeRepositoryFolder(path));
    ASSERT_EQ(::chmod(path.c_str(), mode), 0);
    ASSERT_TRUE(MakeRepositoryFolder(path));
    EXPECT_EQ(ModeOf(path), mode);
  }
}

TEST(RepositoryFolder, ParentMissing_IsRefusedWithTheReason) {
  const TempDir folder;
  const Status made = MakeRepositoryFolder(folder.File("missing/pool"));
  ASSERT_FALSE(made);
  EXPECT_EQ(made.error().ToString(),
            "Cannot create the folder '" + folder.File("missing/pool") + "': No such file or directory");
}

TEST(RepositoryFolder, LinkInItsPlace_IsNotFollowed) {
  const TempDir folder;
  ASSERT_EQ(::mkdir(folder.File("elsewhere").c_str(), 0700), 0);
  ASSERT_EQ(::symlink(folder.File("elsewhere").c_str(), folder.File("pool").c_str()), 0);
  EXPECT_TRUE(MakeRepositoryFolder(folder.File("pool")));
  EXPECT_EQ(ModeOf(folder.File("elsewhere")), 0700U);
}

}  // namespace
}  // namespace vexa::test
