// A process that looks like the QEMU of a guest.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include "host/base/not_copyable.h"

namespace vexa::test {

// Has one file open, and stops itself. Its command line is like that of the guest's QEMU.
class FakeQemu : private NotCopyable {
 public:
  // What the process really runs.
  enum class Program {
    kQemu,  // a program whose file has a name like QEMU's
    kOther,
  };
  // `folder` is for the program. The process belongs to `user`; only root can choose another one than its own.
  FakeQemu(const std::string& guest_id, const std::string& path, const std::string& folder,
           Program program = Program::kQemu, uid_t user = ::getuid()) {
    const std::string name = folder + (program == Program::kQemu ? "/qemu-fake" : "/other");
    std::filesystem::copy_file("/bin/sh", name, std::filesystem::copy_options::skip_existing);
    // Other users cannot reach the path.
    const int executable = ::open(name.c_str(), O_PATH | O_CLOEXEC);
    const int file = ::open(path.c_str(), O_RDONLY);
    int ready[2];
    EXPECT_EQ(::pipe(ready), 0);
    pid_ = ::fork();
    if (pid_ == 0) {
      ::dup2(ready[1], STDOUT_FILENO);
      ::dup2(file, kFile);
      ::dup3(executable, kExecutable, O_CLOEXEC);
      ::close_range(STDERR_FILENO + 1, kFile - 1, 0);
      ::close_range(kExecutable + 1, ~0U, 0);
      if (user != ::getuid() && (::setgid(user) != 0 || ::setuid(user) != 0)) ::_exit(126);
      char* const arguments[] = {const_cast<char*>("qemu-fake"),
                                 const_cast<char*>("-c"),
                                 const_cast<char*>("echo ready; exec 1>&-; kill -STOP $$"),
                                 const_cast<char*>("-uuid"),
                                 const_cast<char*>(guest_id.c_str()),
                                 nullptr};
      ::fexecve(kExecutable, arguments, environ);
      ::_exit(127);
    }
    ::close(ready[1]);
    ::close(file);
    ::close(executable);
    char answer[8];
    EXPECT_EQ(::read(ready[0], answer, sizeof answer), 6);
    ::close(ready[0]);
  }
  ~FakeQemu() {
    ::kill(pid_, SIGKILL);
    ::waitpid(pid_, nullptr, 0);
  }

 private:
  // Descriptors of the child, above the ones in use.
  static constexpr int kFile = 1000;
  static constexpr int kExecutable = 1001;
  pid_t pid_ = 0;
};

}  // namespace vexa::test
