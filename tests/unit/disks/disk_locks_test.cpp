// Locks as QEMU holds them on images, and the operations that they prevent.
#include "host/disks/disk_locks.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <fstream>
#include <iterator>

#include "tests/unit/guests/guest_deletion_environment.h"

namespace vexa::test {
namespace {

using disks::DiskFiles;
using disks::FileSystemCalls;

// Another process that has a file open as QEMU has, until it is ended.
class Machine {
 public:
  Machine(const std::string& path, const std::vector<off_t>& bytes) {
    std::array<int, 2> ready{};
    if (::pipe(ready.data()) != 0) return;
    pid_ = ::fork();
    if (pid_ == 0) {
      const int file = ::open(path.c_str(), O_RDWR | O_CLOEXEC);
      for (const off_t byte : bytes) {
        struct flock lock {};
        lock.l_type = F_RDLCK;
        lock.l_whence = SEEK_SET;
        lock.l_start = byte;
        lock.l_len = 1;
        if (::fcntl(file, F_OFD_SETLK, &lock) != 0) ::_exit(1);
      }
      if (::write(ready[1], "x", 1) != 1) ::_exit(1);
      for (;;) ::pause();
    }
    ::close(ready[1]);
    char byte = 0;
    EXPECT_EQ(::read(ready[0], &byte, 1), 1);
    ::close(ready[0]);
  }
  ~Machine() { End(); }
  void End() {
    if (pid_ <= 0) return;
    ::kill(pid_, SIGKILL);
    ::waitpid(pid_, nullptr, 0);
    pid_ = -1;
  }

 private:
  pid_t pid_ = -1;
};

std::string ContentOf(const std::string& path) {
  std::ifstream in(path);
  return {std::istreambuf_iterator<char>(in), {}};
}

class DiskLocks : public testing::Test {
 protected:
  DiskLocks() : files_({environment_.folder().File("images")}, {}) { WriteFile(path_, "data"); }

  static void ExpectBusy(const Status& status, const std::string& path) {
    ASSERT_FALSE(status);
    EXPECT_EQ(status.error().code(), ErrorCode::kBusy);
    EXPECT_EQ(status.error().message(), "A VM process has the file '" + path + "' open");
  }

  const DeletionEnvironment environment_;
  const std::string path_ = environment_.Image("x");
  const DiskFiles files_;
};

TEST_F(DiskLocks, DiskFiles_OpenInMachine_AreNotChanged) {
  // What a machine that writes holds: it uses 0, 1 and 3, and does not share the others.
  Machine machine(path_, {100, 101, 103, 201, 203});
  for (int i = 0; i < 2; ++i) {  // a probe must not release the locks
    ExpectBusy(files_.Hide(path_, ".h"), path_);
    ExpectBusy(files_.Remove(path_), path_);
    ExpectBusy(files_.SetLength(path_, 100), path_);
    ExpectBusy(files_.WriteAt(path_, {0, "other"}), path_);
  }
  EXPECT_EQ(ContentOf(path_), "data");
  EXPECT_TRUE(files_.Create(environment_.Image("new"), 1, {}));
  std::filesystem::rename(path_, environment_.Image(".h"));
  ExpectBusy(files_.RemoveHidden(path_, ".h"), path_);
  EXPECT_TRUE(files_.Unhide(path_, ".h")) << "a name is given back in any case";
  machine.End();
  EXPECT_TRUE(files_.SetLength(path_, 2));
  EXPECT_TRUE(files_.Remove(path_));
}

TEST_F(DiskLocks, Probe_EachLockByte_CountsAndNoOther) {
  for (const auto& [byte, is_image] : {std::pair<off_t, bool>{99, false},
                                       {100, true},
                                       {199, true},
                                       {200, true},
                                       {299, true},
                                       {300, false},
                                       {0, false}}) {
    WriteFile(path_, "data");
    const Machine machine(path_, {byte});
    EXPECT_EQ(files_.Remove(path_).ok(), !is_image) << byte;
  }
}

TEST_F(DiskLocks, Probe_File_TakesNoLockThatQemuWouldMeet) {
  const int file = ::open(path_.c_str(), O_RDWR | O_CLOEXEC);
  ASSERT_TRUE(files_.Hide(path_, ".h"));
  ASSERT_TRUE(files_.Unhide(path_, ".h"));
  struct flock lock {};
  lock.l_type = F_WRLCK;
  lock.l_whence = SEEK_SET;
  EXPECT_EQ(::fcntl(file, F_OFD_SETLK, &lock), 0);
  ExpectBusy(files_.Remove(path_), path_);
  ::close(file);
}

// A machine's files can belong to another account for as long as it runs. An administrator can open them anyway, so
// another account asks here.
TEST_F(DiskLocks, DiskLocks_FileCannotBeOpened_IsSearchedAmongAllLocks) {
  for (const bool is_locked : {false, true}) {
    SCOPED_TRACE(is_locked);
    ::chmod(path_.c_str(), 0600);
    const Machine machine(path_, is_locked ? std::vector<off_t>{100} : std::vector<off_t>{});
    ::chmod(path_.c_str(), 0);
    ::chmod(environment_.folder().File("").c_str(), 0755);
    ::chmod(environment_.Image("").c_str(), 0777);
    const pid_t child = ::fork();
    if (child == 0) {
      constexpr uid_t kOther = 65534;
      if (::geteuid() == 0 && ::setuid(kOther) != 0) ::_exit(10);
      const int folder = ::open(environment_.Image("").c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
      const int unreadable = ::openat(folder, "x", O_RDONLY | O_CLOEXEC);
      if (folder < 0 || unreadable >= 0) ::_exit(11);
      bool is_open_in_vm = false;
      if (disks::IsOpenInVm(folder, "x", &is_open_in_vm) != 0) ::_exit(12);
      if (files_.Hide(path_, ".h").ok() == is_locked) ::_exit(13);
      ::_exit(is_open_in_vm ? 1 : 0);
    }
    int how = 0;
    ASSERT_EQ(::waitpid(child, &how, 0), child);
    ASSERT_TRUE(WIFEXITED(how));
    EXPECT_EQ(WEXITSTATUS(how), is_locked ? 1 : 0);
    if (!is_locked) std::filesystem::rename(environment_.Image(".h"), path_);
  }
}

TEST(LockTable, LockTable_OtherFilesRangesOrWaiters_AreIgnored) {
  const auto has = [](const std::string& table) { return disks::HasImageLock(table, 0x0801, 131079); };
  EXPECT_TRUE(has("1: OFDLCK ADVISORY  READ  -1 08:01:131079 100 101\n"));
  EXPECT_TRUE(has("1: POSIX  ADVISORY  WRITE 1234 08:01:131079 0 EOF"));
  EXPECT_TRUE(has("x\n1: FLOCK  ADVISORY  WRITE 1 08:01:5 0 EOF\n\n2: OFDLCK ADVISORY READ -1 08:01:131079 299 299\n"));
  EXPECT_TRUE(has("1: OFDLCK ADVISORY READ -1 08:01:131079 what 7\n")) << "what is not understood is left alone";
  for (const char* other :
       {"", "\n", "1: OFDLCK ADVISORY READ -1 08:01:131079 0 99", "1: OFDLCK ADVISORY READ -1 08:01:131079 300 EOF",
        "1: OFDLCK ADVISORY READ -1 08:02:131079 100 100", "1: OFDLCK ADVISORY READ -1 18:01:131079 100 100",
        "1: OFDLCK ADVISORY READ -1 08:01:131078 100 100", "1: FLOCK ADVISORY READ 7 08:01:131079 0 EOF",
        "1: LEASE ACTIVE READ 7 08:01:131079 0 EOF", "1: -> OFDLCK ADVISORY READ -1 08:01:131079 100 100",
        "1: OFDLCK ADVISORY READ -1 131079 100 100", "1: OFDLCK ADVISORY READ -1 08:131079 100 100"}) {
    EXPECT_FALSE(has(other)) << other;
  }
}

TEST_F(DiskLocks, DiskLocks_UnreadableLocks_KeepTheFile) {
  FileSystemCalls calls;
  calls.is_open_in_vm = [](int, const char*, bool*) { return EIO; };
  const DiskFiles files({environment_.folder().File("images")}, calls);
  EXPECT_EQ(files.Remove(path_).error().code(), ErrorCode::kInternal);
  EXPECT_EQ(ContentOf(path_), "data");
}

}  // namespace
}  // namespace vexa::test
