// Runs a program on a pseudo-terminal.
#pragma once

#include <gtest/gtest.h>
#include <poll.h>
#include <pty.h>
#include <signal.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <stdexcept>
#include <string>
#include <vector>

#include "tests/support/process.h"

namespace vexa::test {

// A program on a terminal of its own.
class OnTerminal {
 public:
  // `patience`: how long the program may show nothing.
  explicit OnTerminal(const ProcessOptions& options, std::chrono::seconds patience = std::chrono::seconds(60))
      : patience_(patience) {
    std::vector<std::string> environment;
    for (const auto& [name, value] : options.environment) {
      if (value) environment.push_back(name + "=" + *value);
    }
    std::vector<std::string> arguments = options.argv;
    const auto argv = Pointers(arguments);
    const auto envp = Pointers(environment);
    pid_ = ::forkpty(&master_, nullptr, nullptr, nullptr);
    if (pid_ == 0) {
      ::execve(argv[0], argv.data(), envp.data());
      ::_exit(127);
    }
    // Never kept: kill(2) of process -1 in the destructor would end every process of the user.
    if (pid_ < 0) throw std::runtime_error("no pseudo-terminal can be had: is devpts mounted?");
  }
  ~OnTerminal() {
    if (!reaped_) {
      ::kill(pid_, SIGKILL);
      ::waitpid(pid_, nullptr, 0);
    }
    ::close(master_);
  }
  OnTerminal(const OnTerminal&) = delete;
  OnTerminal& operator=(const OnTerminal&) = delete;

  // Reads until `text` has been shown once more than before.
  bool WaitFor(const std::string& text) {
    while (shown_.find(text, seen_) == std::string::npos) {
      if (!ReadSome()) return false;
    }
    seen_ = shown_.find(text, seen_) + text.size();
    return true;
  }

  void Type(const std::string& text) {
    EXPECT_EQ(::write(master_, text.data(), text.size()), static_cast<ssize_t>(text.size()));
  }

  bool IsEchoOn() const {
    termios settings{};
    EXPECT_EQ(::tcgetattr(master_, &settings), 0);
    return (settings.c_lflag & ECHO) != 0;
  }

  // Reads to the end and returns the status as waitpid gives it.
  int Finish() {
    while (ReadSome()) {
    }
    int status = -1;
    EXPECT_EQ(::waitpid(pid_, &status, 0), pid_);
    reaped_ = true;
    return status;
  }

  const std::string& shown() const { return shown_; }

 private:
  static std::vector<char*> Pointers(std::vector<std::string>& texts) {
    std::vector<char*> pointers;
    for (auto& text : texts) pointers.push_back(text.data());
    pointers.push_back(nullptr);
    return pointers;
  }

  bool ReadSome() {
    pollfd polled{master_, POLLIN, 0};
    if (::poll(&polled, 1, static_cast<int>(std::chrono::milliseconds(patience_).count())) != 1) return false;
    std::array<char, 4096> buffer;
    const ssize_t count = ::read(master_, buffer.data(), buffer.size());  // EIO when the program has ended
    if (count <= 0) return false;
    shown_.append(buffer.data(), static_cast<std::size_t>(count));
    return true;
  }

  const std::chrono::seconds patience_;
  pid_t pid_ = -1;
  int master_ = -1;
  bool reaped_ = false;
  std::string shown_;
  std::size_t seen_ = 0;
};

}  // namespace vexa::test
