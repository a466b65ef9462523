// Changes files below a folder in every way that the recorder knows: file_changer FOLDER
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <string>
#include <thread>

#include "tests/support/check.h"

namespace {

using vexa::test::Check;

void WriteTo(int fd, const std::string& text) {
  Check(::write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size()), "write");
}

void WriteInEveryWay(int folder) {
  const int fd = ::openat(folder, "written", O_RDWR | O_CREAT | O_CLOEXEC, 0640);
  Check(fd >= 0, "openat");
  WriteTo(fd, "first, ");
  std::array<char, 5> a{'s', 'e', 'c', 'o', 'n'};
  std::array<char, 3> b{'d', ',', ' '};
  const std::array<iovec, 2> parts{{{a.data(), a.size()}, {b.data(), b.size()}}};
  Check(::writev(fd, parts.data(), 2) == 8, "writev");
  Check(::pwritev(fd, parts.data(), 2, 5000) == 8, "pwritev");
  Check(::pwrite(fd, "far", 3, 100'000) == 3, "pwrite");
  const int again = ::dup(fd);
  WriteTo(again, "third");
  Check(::fsync(fd) == 0 && ::fdatasync(again) == 0, "fsync");
  const int appending = ::openat(folder, "written", O_WRONLY | O_APPEND | O_CLOEXEC);
  WriteTo(appending, "at the end");
  const int synced = ::openat(folder, "written", O_WRONLY | O_DSYNC | O_CLOEXEC);
  WriteTo(synced, "FIRST");
  for (const int each : {fd, again, appending, synced}) ::close(each);
}

void ChangeLengths(const std::string& root) {
  const int fd = ::open((root + "/lengths").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  WriteTo(fd, std::string(10'000, 'l'));
  Check(::ftruncate(fd, 700) == 0 && ::ftruncate(fd, 3000) == 0, "ftruncate");
  Check(::posix_fallocate(fd, 0, 20'000) == 0, "posix_fallocate");
  Check(::truncate((root + "/lengths").c_str(), 15'000) == 0, "truncate");
  ::close(fd);
  for (int i = 0; i < 2; ++i) std::ofstream(root + "/stream") << "The C++ library makes calls of its own, " << i;
}

void ChangeNames(const std::string& root, int folder) {
  Check(::mkdir((root + "/a").c_str(), 0700) == 0 && ::mkdirat(folder, "b/", 0750) == 0, "mkdir");
  Check(::mkdir((root + "/a/c").c_str(), 0700) == 0, "mkdir");
  for (const char* const name : {"/a/one", "/a/two", "/a/three", "/a/four"}) std::ofstream(root + name) << name;
  Check(::rename((root + "/a/one").c_str(), (root + "/a/two").c_str()) == 0, "rename");
  Check(::renameat2(folder, "a/three", folder, "b/three", RENAME_NOREPLACE) == 0, "renameat2");
  Check(::link((root + "/a/four").c_str(), (root + "/b/linked").c_str()) == 0, "link");
  Check(::chdir((root + "/b").c_str()) == 0, "chdir");
  Check(::unlink("three") == 0 && ::unlinkat(folder, "a/c", AT_REMOVEDIR) == 0, "unlink");
  Check(::rename((root + "/a").c_str(), (root + "/renamed").c_str()) == 0, "rename");
  Check(::chmod((root + "/renamed").c_str(), 0711) == 0 && ::fchmodat(folder, "stream", 0604, 0) == 0, "chmod");
}

void MakeUnnamedFile(const std::string& root) {
  const int fd = ::open(root.c_str(), O_TMPFILE | O_WRONLY | O_CLOEXEC, 0600);
  if (fd < 0) return;  // not on every file system
  WriteTo(fd, "it had no name");
  Check(::fchmod(fd, 0644) == 0 && ::fsync(fd) == 0, "fchmod");
  const std::string self = "/proc/self/fd/" + std::to_string(fd);
  Check(::linkat(AT_FDCWD, self.c_str(), AT_FDCWD, (root + "/unnamed").c_str(), AT_SYMLINK_FOLLOW) == 0, "linkat");
  ::close(fd);
}

void Map(const std::string& root) {
  const int fd = ::open((root + "/mapped").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  Check(::ftruncate(fd, 4096) == 0, "ftruncate");
  void* const at = ::mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  Check(at != MAP_FAILED, "mmap");
  std::memset(at, 'm', 100);
  ::munmap(at, 4096);
  ::close(fd);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) return 2;
  const std::string root = argv[1];
  const int folder = ::open(root.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  Check(folder >= 0, argv[1]);
  std::thread([&] { WriteInEveryWay(folder); }).join();
  ChangeLengths(root);
  ChangeNames(root, folder);
  MakeUnnamedFile(root);
  Map(root);
  std::ofstream(root + "/there-before", std::ios::app) << ", and changed";
  Check(std::remove((root + "/gone").c_str()) == 0, "remove");
  Check(::fsync(folder) == 0, "fsync");
  WriteTo(STDOUT_FILENO, "done\n");
  return 0;
}
