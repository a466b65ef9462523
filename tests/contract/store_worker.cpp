#include "tests/contract/store_worker.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <utility>

namespace vexa::store {

Worker::Worker(const std::vector<std::string>& arguments) {
  // The program is in the folder of the test.
  const std::string program =
      (std::filesystem::read_symlink("/proc/self/exe").parent_path() / "store_test_worker").string();
  std::vector<char*> argv = {const_cast<char*>(program.c_str())};
  for (const std::string& argument : arguments) argv.push_back(const_cast<char*>(argument.c_str()));
  argv.push_back(nullptr);
  int pipe_ends[2];
  if (::pipe2(pipe_ends, O_CLOEXEC) != 0) {
    ADD_FAILURE() << "no pipe";
    return;
  }
  posix_spawn_file_actions_t actions;
  ::posix_spawn_file_actions_init(&actions);
  ::posix_spawn_file_actions_adddup2(&actions, pipe_ends[1], STDOUT_FILENO);
  const int failed = ::posix_spawn(&pid_, program.c_str(), &actions, nullptr, argv.data(), environ);
  ::posix_spawn_file_actions_destroy(&actions);
  ::close(pipe_ends[1]);
  output_ = pipe_ends[0];
  if (failed != 0) {
    ADD_FAILURE() << "cannot start " << program;
    pid_ = -1;
  }
}

Worker::~Worker() {
  Kill();
  Wait();
  if (output_ >= 0) ::close(output_);
}

std::string Worker::ReadLine() {
  while (true) {
    const std::size_t end = unread_.find('\n');
    if (end != std::string::npos) {
      std::string line = unread_.substr(0, end);
      unread_.erase(0, end + 1);
      return line;
    }
    char buffer[4096];
    const ssize_t count = ::read(output_, buffer, sizeof buffer);
    if (count <= 0) return "";
    unread_.append(buffer, static_cast<std::size_t>(count));
  }
}

void Worker::Signal(int number) {
  if (pid_ > 0) ::kill(pid_, number);
}

int Worker::Wait() {
  if (pid_ <= 0) return -1;
  int status = 0;
  ::waitpid(std::exchange(pid_, -1), &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

}  // namespace vexa::store
