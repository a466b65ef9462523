#include "host/base/files.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "host/base/private_file.h"
#include "tests/unit/storage/temporary_folder.h"

namespace vexa {
namespace {

namespace fs = std::filesystem;

class Files : public testing::Test {
 protected:
  std::string Path(const std::string& name) const { return folder_.Path(name); }
  std::size_t Entries() const {
    return static_cast<std::size_t>(std::distance(fs::directory_iterator(folder_.path()), fs::directory_iterator()));
  }
  bool HasUnnamedFiles() const {
    const int fd = ::open(folder_.path().c_str(), O_TMPFILE | O_WRONLY | O_CLOEXEC, 0600);
    return fd >= 0 && ::close(fd) == 0;
  }
  static mode_t ModeOf(const std::string& path) {
    struct stat info {};
    EXPECT_EQ(::stat(path.c_str(), &info), 0);
    return info.st_mode & 07777;
  }
  static ErrorCode ReadCode(const std::string& path, std::size_t max_bytes = 100) {
    const auto result = ReadFile(path, max_bytes);
    EXPECT_FALSE(result.ok());
    return result.ok() ? ErrorCode::kInternal : result.error().code();
  }

  TemporaryFolder folder_;
};

TEST_F(Files, Write_ThenRead_ReturnsSameBytes) {
  std::string content;
  for (int i = 0; i < 300'000; ++i) content += static_cast<char>(i * 7);
  ASSERT_TRUE(WriteFileAtomically(Path("f"), content, 0600).ok());
  const auto read = ReadFile(Path("f"), 300'000);
  ASSERT_TRUE(read.ok());
  EXPECT_TRUE(*read == content);
  EXPECT_EQ(Entries(), 1u);
}

TEST_F(Files, Write_EmptyContent_CreatesEmptyFile) {
  ASSERT_TRUE(WriteFileAtomically(Path("f"), "", 0600).ok());
  const auto read = ReadFile(Path("f"), 0);
  ASSERT_TRUE(read.ok());
  EXPECT_EQ(*read, "");
}

TEST_F(Files, Write_FileExists_ReplacesContentAndMode) {
  ASSERT_TRUE(WriteFileAtomically(Path("f"), "a longer old content", 0644).ok());
  ASSERT_TRUE(WriteFileAtomically(Path("f"), "new", 0600).ok());
  EXPECT_EQ(*ReadFile(Path("f"), 100), "new");
  EXPECT_EQ(ModeOf(Path("f")), 0600u);
}

TEST_F(Files, Write_AnyUmask_HasRequestedMode) {
  for (const mode_t umask_now : {0000, 0077, 0777}) {
    const mode_t before = ::umask(umask_now);
    const Status status = WriteFileAtomically(Path("f"), "x", 0640);
    ::umask(before);
    ASSERT_TRUE(status.ok());
    EXPECT_EQ(ModeOf(Path("f")), 0640u);
  }
}

TEST_F(Files, Write_PathIsSymbolicLink_ReplacesLink) {
  ASSERT_TRUE(WriteFileAtomically(Path("target"), "old", 0600).ok());
  fs::create_symlink(Path("target"), Path("link"));
  ASSERT_TRUE(WriteFileAtomically(Path("link"), "new", 0600).ok());
  EXPECT_FALSE(fs::is_symlink(Path("link")));
  EXPECT_EQ(*ReadFile(Path("target"), 100), "old");
  EXPECT_EQ(*ReadFile(Path("link"), 100), "new");
}

TEST_F(Files, Write_FolderMissing_IsNotFound) {
  const Status status = WriteFileAtomically(Path("none/f"), "x", 0600);
  ASSERT_FALSE(status.ok());
  EXPECT_EQ(status.error().code(), ErrorCode::kNotFound);
  EXPECT_NE(status.error().message().find("none/f"), std::string::npos);
}

TEST_F(Files, Write_PathIsFolder_FailsAndLeavesNothing) {
  fs::create_directory(Path("f"));
  EXPECT_FALSE(WriteFileAtomically(Path("f"), "x", 0600).ok());
  EXPECT_TRUE(fs::is_directory(Path("f")));
  EXPECT_EQ(Entries(), 1u);
}

TEST_F(Files, Write_NulInPath_IsInvalidAndWritesNothing) {
  const std::string path = Path("f") + std::string("\0g", 2);
  EXPECT_EQ(WriteFileAtomically(path, "x", 0600).error().code(), ErrorCode::kInvalid);
  EXPECT_EQ(CreateDirectories(path, 0700).error().code(), ErrorCode::kInvalid);
  EXPECT_EQ(ReadCode(path), ErrorCode::kInvalid);
  EXPECT_EQ(Entries(), 0u);
}

TEST_F(Files, Write_RelativePathWithoutFolder_Works) {
  const fs::path before = fs::current_path();
  fs::current_path(folder_.path());
  const Status status = WriteFileAtomically("f", "x", 0600);
  fs::current_path(before);
  ASSERT_TRUE(status.ok()) << status.error().ToString();
  EXPECT_EQ(*ReadFile(Path("f"), 100), "x");
}

// The write fails half-way, as on a full disk: a child may not make files of more than 4 KiB.
TEST_F(Files, Write_FailsHalfway_KeepsOldFileAndLeavesNoTemporary) {
  ASSERT_TRUE(WriteFileAtomically(Path("f"), "old", 0600).ok());
  const pid_t child = ::fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    ::signal(SIGXFSZ, SIG_IGN);
    const rlimit limit{4096, 4096};
    if (::setrlimit(RLIMIT_FSIZE, &limit) != 0) ::_exit(2);
    ::_exit(WriteFileAtomically(Path("f"), std::string(100'000, 'x'), 0600).ok() ? 1 : 0);
  }
  int status = 0;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 0);
  EXPECT_EQ(*ReadFile(Path("f"), 100), "old");
  EXPECT_EQ(Entries(), 1u);
}

// The limit ends the child in the middle of the write.
TEST_F(Files, Write_KilledHalfway_LeavesNoCopy) {
  if (!HasUnnamedFiles()) GTEST_SKIP() << "The file system has no unnamed files";
  ASSERT_TRUE(WriteFileAtomically(Path("f"), "old", 0600).ok());
  const pid_t child = ::fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    ::signal(SIGXFSZ, SIG_DFL);
    const rlimit no_core{0, 0};
    const rlimit limit{4096, 4096};
    if (::setrlimit(RLIMIT_CORE, &no_core) != 0 || ::setrlimit(RLIMIT_FSIZE, &limit) != 0) ::_exit(2);
    ::_exit(WriteFileAtomically(Path("f"), std::string(100'000, 'x'), 0600).ok() ? 1 : 0);
  }
  int status = 0;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  ASSERT_TRUE(WIFSIGNALED(status)) << "it was not killed: " << status;
  EXPECT_EQ(*ReadFile(Path("f"), 100), "old");
  EXPECT_EQ(Entries(), 1u);
}

TEST_F(Files, Write_ConcurrentReads_NeverSeePartialContent) {
  const std::string a(200'000, 'a');
  const std::string b(150'000, 'b');
  ASSERT_TRUE(WriteFileAtomically(Path("f"), a, 0600).ok());
  std::thread writer([&] {
    for (int i = 0; i < 20; ++i) EXPECT_TRUE(WriteFileAtomically(Path("f"), i % 2 == 0 ? b : a, 0600).ok());
  });
  for (int i = 0; i < 100; ++i) {
    const auto read = ReadFile(Path("f"), 200'000);
    EXPECT_TRUE(read.ok());
    EXPECT_TRUE(!read.ok() || *read == a || *read == b);
  }
  writer.join();
}

TEST_F(Files, Read_NoFile_IsNotFound) { EXPECT_EQ(ReadCode(Path("none")), ErrorCode::kNotFound); }

TEST_F(Files, Read_LargerThanAllowed_IsInvalid) {
  ASSERT_TRUE(WriteFileAtomically(Path("f"), "12345", 0600).ok());
  EXPECT_TRUE(ReadFile(Path("f"), 5).ok());
  EXPECT_EQ(ReadCode(Path("f"), 4), ErrorCode::kInvalid);
}

TEST_F(Files, Read_NotRegularFile_IsInvalidWithoutBlocking) {
  ASSERT_EQ(::mkfifo(Path("fifo").c_str(), 0600), 0);
  EXPECT_EQ(ReadCode(Path("fifo")), ErrorCode::kInvalid);
  EXPECT_EQ(ReadCode(folder_.path()), ErrorCode::kInvalid);
  EXPECT_EQ(ReadCode("/dev/zero"), ErrorCode::kInvalid);
}

TEST_F(Files, Read_EndlessFile_StopsAtLimit) {
  // Says that its size is 0.
  const auto read = ReadFile("/proc/self/status", 1 << 20);
  ASSERT_TRUE(read.ok());
  EXPECT_NE(read->find("Pid:"), std::string::npos);
}

TEST_F(Files, CreateDirectories_MissingParents_AreCreated) {
  ASSERT_TRUE(CreateDirectories(Path("a/b/c"), 0700).ok());
  EXPECT_TRUE(fs::is_directory(Path("a/b/c")));
  EXPECT_EQ(ModeOf(Path("a")), 0700u);
  EXPECT_EQ(ModeOf(Path("a/b/c")), 0700u);
  EXPECT_TRUE(CreateDirectories(Path("a/b/c"), 0755).ok());
  EXPECT_EQ(ModeOf(Path("a/b/c")), 0700u);
  EXPECT_TRUE(CreateDirectories(Path("a/b/d/"), 0700).ok());
  EXPECT_TRUE(fs::is_directory(Path("a/b/d")));
}

TEST_F(Files, CreateDirectories_LinkToFolder_Works) {
  fs::create_directory(Path("real"));
  fs::create_directory_symlink(Path("real"), Path("link"));
  ASSERT_TRUE(CreateDirectories(Path("link/a"), 0700).ok());
  EXPECT_TRUE(fs::is_directory(Path("real/a")));
}

TEST_F(Files, CreateDirectories_FileInPath_IsConflict) {
  ASSERT_TRUE(WriteFileAtomically(Path("f"), "x", 0600).ok());
  EXPECT_EQ(CreateDirectories(Path("f"), 0700).error().code(), ErrorCode::kConflict);
  EXPECT_EQ(CreateDirectories(Path("f/a/b"), 0700).error().code(), ErrorCode::kConflict);
}

// Whether `check` is true for a user who is not root.
bool IsTrueForOthers(const std::function<bool()>& check) {
  const pid_t child = ::fork();
  if (child == 0) {
    constexpr uid_t kOther = 65534;
    if (::geteuid() == 0 && ::setuid(kOther) != 0) ::_exit(2);
    ::_exit(check() ? 0 : 3);
  }
  int status = 0;
  return child > 0 && ::waitpid(child, &status, 0) == child && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

// Its name might be lost in a power failure, so there is no folder rather than one that is not durable.
TEST_F(Files, CreateDirectories_ParentCannotBeSynced_LeavesNoFolder) {
  fs::create_directory(Path("unreadable"));
  ASSERT_EQ(::chmod(folder_.path().c_str(), 0711), 0);
  ASSERT_EQ(::chmod(Path("unreadable").c_str(), 0333), 0);
  EXPECT_TRUE(IsTrueForOthers([&] {
    const Status made = CreateDirectories(Path("unreadable/new"), 0700);
    return !made && made.error().ToString() == "Cannot sync the folder '" + Path("unreadable") + "': Permission denied";
  }));
  EXPECT_FALSE(fs::exists(Path("unreadable/new")));
  ::chmod(Path("unreadable").c_str(), 0700);
}

TEST_F(Files, SyncFolderAndParent_FolderThatIsMissing_Fails) {
  EXPECT_TRUE(SyncFolderAndParent(folder_.path()));
  const Status synced = SyncFolderAndParent(Path("missing"));
  ASSERT_FALSE(synced);
  EXPECT_EQ(synced.error().ToString(), "Cannot sync the folder '" + Path("missing") + "': No such file or directory");
}

// It existed before, with the name that the caller has found.
TEST_F(Files, SyncFolderAndParent_ParentCannotBeRead_IsLeftOut) {
  fs::create_directories(Path("unreadable/folder"));
  ASSERT_EQ(::chmod(folder_.path().c_str(), 0711), 0);
  ASSERT_EQ(::chmod(Path("unreadable/folder").c_str(), 0755), 0);
  ASSERT_EQ(::chmod(Path("unreadable").c_str(), 0311), 0);
  EXPECT_TRUE(IsTrueForOthers([&] { return SyncFolderAndParent(Path("unreadable/folder")).ok(); }));
  ::chmod(Path("unreadable").c_str(), 0700);
}

// Only a parent that may not be read is left out.
TEST_F(Files, SyncFolderAndParent_NoDescriptorForTheParent_Fails) {
  fs::create_directories(Path("folder"));
  const int next = ::dup(STDIN_FILENO);
  ASSERT_GE(next, 0);
  ::close(next);
  rlimit before{};
  ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &before), 0);
  const rlimit one_more{static_cast<rlim_t>(next) + 1, before.rlim_max};
  ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &one_more), 0);
  const Status synced = SyncFolderAndParent(Path("folder"));
  ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &before), 0);
  ASSERT_FALSE(synced);
  EXPECT_EQ(synced.error().ToString(), "Cannot sync the folder '" + Path("folder") + "/..': Too many open files");
}

TEST_F(Files, CreateDirectories_EmptyPath_Fails) { EXPECT_FALSE(CreateDirectories("", 0700).ok()); }

TEST_F(Files, ReadPrivate_OwnFile_ReturnsContentAndStamp) {
  ASSERT_TRUE(WriteFileAtomically(Path("f"), "secret", 0600).ok());
  const auto file = ReadPrivateFile(Path("f"), 100);
  ASSERT_TRUE(file.ok());
  EXPECT_EQ(file->content, "secret");
  EXPECT_TRUE(file->stamp == *ReadFileStamp(Path("f")));
  EXPECT_TRUE(file->stamp_may_repeat);
}

TEST_F(Files, ReadPrivate_OldFile_HasUniqueStamp) {
  ASSERT_TRUE(WriteFileAtomically(Path("f"), "secret", 0600).ok());
  bool may_repeat = true;
  for (int i = 0; may_repeat && i < 500; ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
    may_repeat = ReadPrivateFile(Path("f"), 100)->stamp_may_repeat;
  }
  EXPECT_FALSE(may_repeat);
}

TEST_F(Files, ReadPrivate_AnyPermissionForOthers_IsDenied) {
  ASSERT_TRUE(WriteFileAtomically(Path("f"), "secret", 0600).ok());
  for (const mode_t bit : {0040, 0020, 0010, 0004, 0002, 0001}) {
    ASSERT_EQ(::chmod(Path("f").c_str(), 0600 | bit), 0);
    EXPECT_EQ(ReadPrivateFile(Path("f"), 100).error().code(), ErrorCode::kDenied) << bit;
  }
}

TEST_F(Files, ReadPrivate_FileOfOtherUser_IsDenied) {
  if (::geteuid() != 0) GTEST_SKIP() << "only root can give a file away";
  ASSERT_TRUE(WriteFileAtomically(Path("f"), "secret", 0600).ok());
  ASSERT_EQ(::chown(Path("f").c_str(), 12345, 0), 0);
  EXPECT_EQ(ReadPrivateFile(Path("f"), 100).error().code(), ErrorCode::kDenied);
}

TEST_F(Files, ReadPrivate_NotRegularFile_IsRefused) {
  ASSERT_TRUE(WriteFileAtomically(Path("f"), "secret", 0600).ok());
  fs::create_symlink(Path("f"), Path("link"));
  EXPECT_EQ(ReadPrivateFile(Path("link"), 100).error().code(), ErrorCode::kDenied);
  EXPECT_EQ(ReadPrivateFile(Path("none"), 100).error().code(), ErrorCode::kNotFound);
  EXPECT_EQ(ReadPrivateFile(folder_.path(), 100).error().code(), ErrorCode::kInvalid);
  EXPECT_EQ(ReadPrivateFile(Path("f"), 5).error().code(), ErrorCode::kInvalid);
  ASSERT_EQ(::mkfifo(Path("fifo").c_str(), 0600), 0);
  EXPECT_EQ(ReadPrivateFile(Path("fifo"), 100).error().code(), ErrorCode::kInvalid);
}

}  // namespace
}  // namespace vexa
