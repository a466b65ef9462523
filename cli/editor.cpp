#include "cli/editor.h"

#include <fmt/format.h>

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/signalfd.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <initializer_list>
#include <iostream>
#include <string_view>
#include <system_error>

#include "cli/client_options.h"
#include "host/base/files.h"

namespace vexa::cli {
namespace {

namespace fs = std::filesystem;

bool IsInPath(const std::string& program) {
  const std::string path = EnvironmentVariable("PATH");
  for (std::size_t begin = 0, end = 0; end != std::string::npos; begin = end + 1) {
    end = path.find(':', begin);
    const std::filesystem::path folder = path.substr(begin, end == std::string::npos ? end : end - begin);
    if (!folder.empty() && ::access((folder / program).c_str(), X_OK) == 0) return true;
  }
  return false;
}

// A command for the shell; "" when absent.
std::string EditorCommand() {
  for (const char* variable : {"VISUAL", "EDITOR"}) {
    if (std::string command = EnvironmentVariable(variable); !command.empty()) return command;
  }
  for (const char* program : {"sensible-editor", "editor", "vi"}) {
    if (IsInPath(program)) return program;
  }
  return "";
}

std::string TemporaryFolder() {
  for (const char* variable : {"XDG_RUNTIME_DIR", "TMPDIR"}) {
    const std::string folder = EnvironmentVariable(variable);
    if (folder.starts_with('/') && ::access(folder.c_str(), W_OK | X_OK) == 0) return folder;
  }
  return "/tmp";
}

// A folder that only this user can enter, removed together with its contents.
class PrivateFolder {
 public:
  PrivateFolder() : path_(TemporaryFolder() + "/vexa-edit-XXXXXX") {
    if (!::mkdtemp(path_.data())) error_ = errno;
  }
  ~PrivateFolder() {
    std::error_code ignored;
    if (error_ == 0) fs::remove_all(path_, ignored);
  }
  PrivateFolder(const PrivateFolder&) = delete;
  PrivateFolder& operator=(const PrivateFolder&) = delete;

  const std::string& path() const { return path_; }
  int error() const { return error_; }

 private:
  std::string path_;
  int error_ = 0;
};

Status WriteAll(int fd, std::string_view text) {
  while (!text.empty()) {
    const ssize_t count = ::write(fd, text.data(), text.size());
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return SystemError(ErrorCode::kUnavailable, "Cannot write the text to edit", errno);
    text.remove_prefix(static_cast<std::size_t>(count));
  }
  return {};
}

// During its lifetime, signals that would end or stop this process are blocked.
class BlockedSignals {
 public:
  BlockedSignals() {
    sigemptyset(&blocked_);
    for (const int signal : {SIGINT, SIGQUIT, SIGTERM, SIGHUP, SIGCHLD}) sigaddset(&blocked_, signal);
    ::sigprocmask(SIG_BLOCK, &blocked_, &original_);
    // If the parent of this process set SIGCHLD to be ignored, the editor's exit status would be lost.
    ::signal(SIGCHLD, SIG_DFL);
  }
  ~BlockedSignals() {
    Drop(SIGINT);
    Drop(SIGQUIT);
    ::sigprocmask(SIG_SETMASK, &original_, nullptr);
  }
  BlockedSignals(const BlockedSignals&) = delete;
  BlockedSignals& operator=(const BlockedSignals&) = delete;

  const sigset_t& original() const { return original_; }
  const sigset_t& blocked() const { return blocked_; }

 private:
  // Drops what Ctrl-C in the editor has also sent to this process.
  static void Drop(int signal) {
    sigset_t one;
    sigemptyset(&one);
    sigaddset(&one, signal);
    const timespec no_time{};
    while (::sigtimedwait(&one, nullptr, &no_time) == signal) {
    }
  }

  sigset_t blocked_{};
  sigset_t original_{};
};

// Replaces the child process with the editor, after fork.
[[noreturn]] void ExecEditor(const BlockedSignals& signals, const char* command, const char* file) {
  ::sigprocmask(SIG_SETMASK, &signals.original(), nullptr);
  ::execl("/bin/sh", "sh", "-c", command, "sh", file, static_cast<char*>(nullptr));
  ::_exit(127);
}

// Waits for the editor and passes SIGTERM and SIGHUP on to it. Returns the last such signal, 0 if no signal arrived.
int WaitForEditor(pid_t pid, const BlockedSignals& signals, int& status) {
  constexpr timespec kCheckInterval{0, 200'000'000};
  int received = 0;
  status = 255 << 8;  // exit code 255, in case waitpid fails
  while (::waitpid(pid, &status, WNOHANG) == 0) {
    const int signal = ::sigtimedwait(&signals.blocked(), nullptr, &kCheckInterval);
    if (signal != SIGTERM && signal != SIGHUP) continue;
    received = signal;
    ::kill(pid, signal);
  }
  return received;
}

std::string KeptFileTemplate() { return TemporaryFolder() + "/vexa-edit-XXXXXX.txt"; }
constexpr int kKeptSuffixLength = 4;  // ".txt"

// Moves the edited file, which cannot be read, out of the folder that is about to be removed. Returns its new path; ""
// when it cannot be moved.
std::string RescueText(const std::string& file) {
  struct stat info {};
  if (::lstat(file.c_str(), &info) != 0 || !S_ISREG(info.st_mode)) return "";
  std::string kept = KeptFileTemplate();
  const int fd = ::mkostemps(kept.data(), kKeptSuffixLength, O_CLOEXEC);
  if (fd < 0) return "";
  ::close(fd);
  if (::rename(file.c_str(), kept.c_str()) != 0) return "";
  return kept;
}

std::string DescribeExit(int status) {
  if (WIFSIGNALED(status)) return fmt::format("was ended by signal {}", WTERMSIG(status));
  return fmt::format("ended with exit code {}", WEXITSTATUS(status));
}

}  // namespace

Result<EditorResult> RunEditor(const std::string& text) {
  const std::string editor = EditorCommand();
  if (editor.empty()) return Error(ErrorCode::kNotFound, "No editor was found. Set $VISUAL or $EDITOR");
  const BlockedSignals signals;
  const PrivateFolder folder;
  if (folder.error() != 0) {
    return SystemError(ErrorCode::kUnavailable, "Cannot create a folder for the text to edit", folder.error());
  }
  const std::string file = folder.path() + "/guest.txt";
  const int fd = ::open(file.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, 0600);
  if (fd < 0) return SystemError(ErrorCode::kUnavailable, "Cannot write the text to edit", errno);
  const Status written = WriteAll(fd, text);
  ::close(fd);
  if (!written) return written.error();
  // Users put options and variables into $EDITOR. The shell execs the editor, so that signals reach it.
  const std::string command = "exec /usr/bin/env " + editor + " \"$1\"";
  std::cout.flush();
  std::cerr.flush();
  const pid_t pid = ::fork();
  if (pid == 0) ExecEditor(signals, command.c_str(), file.c_str());
  if (pid < 0) return SystemError(ErrorCode::kUnavailable, "Cannot start the editor", errno);
  int status = 0;
  EditorResult edited;
  edited.signal = WaitForEditor(pid, signals, status);
  const bool succeeded = WIFEXITED(status) && WEXITSTATUS(status) == 0;
  Result<std::string> content = ReadFile(file, kMaxEditedBytes);
  if (edited.signal != 0) {
    edited.outcome = EditorResult::Outcome::kInterrupted;
    edited.text = content ? std::move(content).value() : text;
  } else if (!succeeded) {
    edited.outcome = EditorResult::Outcome::kAborted;
    edited.reason = DescribeExit(status);
  } else if (!content) {
    const std::string kept = RescueText(file);
    const std::string message =
        kept.empty() ? "Cannot read the edited text" : fmt::format("Cannot read the edited text, kept in '{}'", kept);
    return Error(ErrorCode::kUnavailable, message, content.error().ToString());
  } else {
    edited.text = std::move(*content);
  }
  return edited;
}

Result<std::string> SaveForUser(const std::string& text) {
  std::string path = KeptFileTemplate();
  const int fd = ::mkostemps(path.data(), kKeptSuffixLength, O_CLOEXEC);  // of mode 0600
  if (fd < 0) return SystemError(ErrorCode::kUnavailable, "Cannot keep your text", errno);
  const Status written = WriteAll(fd, text);
  ::close(fd);
  if (written) return path;
  ::unlink(path.c_str());
  return written.error();
}

EditAgainChoice AskToEditAgain() {
  if (::isatty(STDIN_FILENO) == 0 || ::isatty(STDERR_FILENO) == 0) return {};
  sigset_t blocked;
  sigset_t before;
  sigemptyset(&blocked);
  for (const int signal : {SIGINT, SIGTERM, SIGHUP}) sigaddset(&blocked, signal);
  ::sigprocmask(SIG_BLOCK, &blocked, &before);
  const int signals = ::signalfd(-1, &blocked, SFD_CLOEXEC);
  std::cerr << "Edit again? [Y/n] " << std::flush;
  EditAgainChoice answer;
  std::array<pollfd, 2> polled{{{STDIN_FILENO, POLLIN, 0}, {signals, POLLIN, 0}}};
  while (::poll(polled.data(), polled.size(), -1) < 0 && errno == EINTR) {
  }
  signalfd_siginfo information{};
  if (polled[1].revents != 0 && ::read(signals, &information, sizeof information) == sizeof information) {
    answer = {EditAgain::kInterrupted, static_cast<int>(information.ssi_signo)};
    std::cerr << '\n';
  } else {
    std::array<char, 256> line{};  // a terminal delivers whole lines
    const ssize_t count = ::read(STDIN_FILENO, line.data(), line.size());
    const bool is_yes = count > 0 && (line[0] == '\n' || line[0] == 'y' || line[0] == 'Y');
    answer.again = is_yes ? EditAgain::kYes : EditAgain::kNo;
  }
  ::close(signals);
  ::sigprocmask(SIG_SETMASK, &before, nullptr);
  return answer;
}

}  // namespace vexa::cli
