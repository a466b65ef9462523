#include "host/hypervisor/qemu_process.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>

#include "host/base/descriptor.h"
#include "tests/support/fake_qemu.h"
#include "tests/support/temp_dir.h"

namespace vexa::hypervisor {
namespace {

constexpr char kGuest[] = "11111111-2222-4333-8444-5555555555fe";
constexpr char kNoGuest[] = "11111111-2222-4333-8444-5555555555ff";

std::string OwnPid() { return std::to_string(::getpid()); }

const HeldFile* FindPath(const std::vector<HeldFile>& files, const std::string& path) {
  const auto found = std::ranges::find(files, path, &HeldFile::path);
  return found == files.end() ? nullptr : &*found;
}

TEST(ProcessFiles, OpenFile_IsListedWithItsNumbers) {
  const test::TempDir folder;
  const std::string path = folder.File("a");
  std::ofstream(path) << "abc";
  EXPECT_EQ(FindPath(*FilesOfProcess(OwnPid()), path), nullptr);
  const Descriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
  struct stat info {};
  ASSERT_EQ(::fstat(file.get(), &info), 0);
  const auto files = FilesOfProcess(OwnPid());
  ASSERT_TRUE(files);
  const HeldFile* const held = FindPath(*files, path);
  ASSERT_NE(held, nullptr);
  EXPECT_EQ(held->device, info.st_dev);
  EXPECT_EQ(held->inode, info.st_ino);
  EXPECT_TRUE(S_ISREG(held->mode));
  EXPECT_EQ(held->size, 3U);
}

TEST(ProcessFiles, RemovedFile_IsListedAsDeleted) {
  const test::TempDir folder;
  const std::string path = folder.File("a");
  std::ofstream(path) << "abc";
  const Descriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
  ASSERT_EQ(::unlink(path.c_str()), 0);
  EXPECT_NE(FindPath(*FilesOfProcess(OwnPid()), path + " (deleted)"), nullptr);
}

TEST(ProcessFiles, FileOfStandardStream_IsLeftOut) {
  const test::TempDir folder;
  const std::string path = folder.File("log");
  const pid_t child = ::fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    const int log = ::open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
    ::dup2(log, STDERR_FILENO);
    const auto files = FilesOfProcess(OwnPid());
    ::_exit(files && FindPath(*files, path) == nullptr ? 0 : 1);
  }
  int status = 0;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  EXPECT_EQ(WEXITSTATUS(status), 0);
}

TEST(ProcessFiles, EndedProcess_IsNotFound) {
  const pid_t child = ::fork();
  ASSERT_GE(child, 0);
  if (child == 0) ::_exit(0);
  ASSERT_EQ(::waitpid(child, nullptr, 0), child);
  EXPECT_EQ(FilesOfProcess(std::to_string(child)).error().code(), ErrorCode::kNotFound);
  EXPECT_EQ(FilesOfQemuProcesses(kNoGuest, "", ::getuid()).error().code(), ErrorCode::kNotFound);
}

TEST(ProcessFiles, ProcessOfOtherUser_IsDenied) {
  // Root may read everything.
  ASSERT_EQ(::seteuid(::getuid() == 0 ? 65534 : ::getuid()), 0);
  const auto files = FilesOfProcess("1");
  ASSERT_EQ(::seteuid(::getuid()), 0);
  ASSERT_FALSE(files);
  EXPECT_EQ(files.error().code(), ErrorCode::kDenied);
}

TEST(QemuProcesses, ProgramWithGuestsIdIsNotQemu_IsLeftOut) {
  const test::TempDir folder;
  const std::string path = folder.File("a");
  std::ofstream(path) << "abc";
  const test::FakeQemu other(kGuest, path, folder.path(), test::FakeQemu::Program::kOther);
  EXPECT_FALSE(FilesOfQemuProcesses(kGuest, "", ::getuid()));
  const test::FakeQemu qemu(kGuest, path, folder.path());
  const auto files = FilesOfQemuProcesses(kGuest, "", ::getuid());
  ASSERT_TRUE(files) << files.error().ToString();
  ASSERT_EQ(files->size(), 1U);
  EXPECT_NE(FindPath(files->front(), path), nullptr);
  EXPECT_FALSE(FilesOfQemuProcesses(kGuest, "", ::getuid() + 1)) << "it belongs to another user";
}

TEST(QemuProcesses, Owner_IsThatOfTheLabelOrThisProcess) {
  const auto domain = [](const std::string& labels) { return "<domain type='kvm'>" + labels + "</domain>"; };
  const auto label = [](const std::string& text) {
    return "<seclabel type='dynamic' model='dac' relabel='yes'><label>" + text + "</label></seclabel>";
  };
  const std::string profile = "<seclabel type='dynamic' model='apparmor'><label>libvirt-1</label></seclabel>";
  EXPECT_EQ(OwnerOfQemu(domain(profile + label("+64055:+64056")).c_str()), 64055U);
  EXPECT_EQ(OwnerOfQemu(domain(label("107:107")).c_str()), 107U);
  EXPECT_EQ(OwnerOfQemu(domain(label("root:root")).c_str()), 0U);
  for (const std::string& xml : {domain(""), domain(profile), domain(label("no such user:kvm")), std::string("<")}) {
    EXPECT_EQ(OwnerOfQemu(xml.c_str()), ::geteuid()) << xml;
  }
}

}  // namespace
}  // namespace vexa::hypervisor
