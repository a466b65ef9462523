#include "cli/editor.h"

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
  const std::string path = EnvironmentText("PATH");
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
    if (std::string command = EnvironmentText(variable); !command.empty()) return command;
  }
  for (const char* program : {"sensible-editor", "editor", "vi"}) {
    if (IsInPath(program)) return program;
  }
  return "";
}

std::string TemporaryFolder() {
  for (const char* variable : {"XDG_RUNTIME_DIR", "TMPDIR"}) {
    const std::string folder = EnvironmentText(variable);
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
    if (count < 0) return SystemError(ErrorCode::kUnavailable, "The text to edit cannot be written", errno);
    text.remove_prefix(static_cast<std::size_t>(count));
  }
  return {};
}

// While it lives, signals that would end or stop this process are held back.
class HeldSignals {
 public:
  HeldSignals() {
    sigemptyset(&held_);
    for (const int signal : {SIGINT, SIGQUIT, SIGTERM, SIGHUP, SIGCHLD}) sigaddset(&held_, signal);
    ::sigprocmask(SIG_BLOCK, &held_, &before_);
    // The parent of this process may have set it to be ignored, and then the editor's exit status would be lost.
    ::signal(SIGCHLD, SIG_DFL);
  }
  ~HeldSignals() {
    Drop(SIGINT);
    Drop(SIGQUIT);
    ::sigprocmask(SIG_SETMASK, &before_, nullptr);
  }
  HeldSignals(const HeldSignals&) = delete;
  HeldSignals& operator=(const HeldSignals&) = delete;

  const sigset_t& before() const { return before_; }
  const sigset_t& held() const { return held_; }

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

  sigset_t held_{};
  sigset_t before_{};
};

// What the child does after fork.
[[noreturn]] void BeEditor(const HeldSignals& signals, const char* command, const char* file) {
  ::sigprocmask(SIG_SETMASK, &signals.before(), nullptr);
  ::execl("/bin/sh", "sh", "-c", command, "sh", file, static_cast<char*>(nullptr));
  ::_exit(127);
}

// Waits for the editor. Returns the signal that asked this process to end meanwhile; 0 without a signal.
int WaitForEditor(pid_t pid, const HeldSignals& signals, int& status) {
  constexpr timespec kLook{0, 200'000'000};
  int received = 0;
  status = 255 << 8;  // if the exit status is unknown, the editor did not end well
  while (::waitpid(pid, &status, WNOHANG) == 0) {
    const int signal = ::sigtimedwait(&signals.held(), nullptr, &kLook);
    if (signal != SIGTERM && signal != SIGHUP) continue;
    received = signal;
    ::kill(pid, signal);
  }
  return received;
}

std::string KeptName() { return TemporaryFolder() + "/vexa-edit-XXXXXX.txt"; }
constexpr int kKeptEnding = 4;  // ".txt"

// Rescues a file that cannot be used as text from the folder that is about to be removed. Returns its new place, for a
// message.
std::string RescueText(const std::string& file) {
  struct stat info {};
  if (::lstat(file.c_str(), &info) != 0 || !S_ISREG(info.st_mode)) return "";
  std::string kept = KeptName();
  const int fd = ::mkostemps(kept.data(), kKeptEnding, O_CLOEXEC);
  if (fd < 0) return "";
  ::close(fd);
  if (::rename(file.c_str(), kept.c_str()) != 0) return "";
  return "; it is kept in '" + kept + "'";
}

std::string DescribeExit(int status) {
  if (WIFSIGNALED(status)) return "was ended by signal " + std::to_string(WTERMSIG(status));
  return "ended with exit code " + std::to_string(WEXITSTATUS(status));
}

}  // namespace

Result<Edited> RunEditor(const std::string& text) {
  const std::string editor = EditorCommand();
  if (editor.empty()) return Error(ErrorCode::kNotFound, "No editor was found. Set $VISUAL or $EDITOR");
  const HeldSignals signals;
  const PrivateFolder folder;
  if (folder.error() != 0) {
    return SystemError(ErrorCode::kUnavailable, "Cannot create a folder for the text to edit", folder.error());
  }
  const std::string file = folder.path() + "/guest.txt";
  const int fd = ::open(file.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, 0600);
  if (fd < 0) return SystemError(ErrorCode::kUnavailable, "The text to edit cannot be written", errno);
  const Status written = WriteAll(fd, text);
  ::close(fd);
  if (!written) return written.error();
  // Users put options and variables into $EDITOR. The shell execs the editor, so that signals reach it.
  const std::string command = "exec /usr/bin/env " + editor + " \"$1\"";
  std::cout.flush();
  std::cerr.flush();
  const pid_t pid = ::fork();
  if (pid == 0) BeEditor(signals, command.c_str(), file.c_str());
  if (pid < 0) return SystemError(ErrorCode::kUnavailable, "The editor cannot be started", errno);
  int status = 0;
  Edited edited;
  edited.signal = WaitForEditor(pid, signals, status);
  const bool is_well = WIFEXITED(status) && WEXITSTATUS(status) == 0;
  Result<std::string> content = ReadFile(file, kMaxEditedBytes);
  if (edited.signal != 0) {
    edited.end = Edited::End::kInterrupted;
    edited.text = content ? std::move(content).value() : text;
  } else if (!is_well) {
    edited.end = Edited::End::kGivenUp;
    edited.why = DescribeExit(status);
  } else if (!content) {
    return Error(ErrorCode::kUnavailable, "Cannot read the edited text" + RescueText(file), content.error().ToString());
  } else {
    edited.text = std::move(*content);
  }
  return edited;
}

Result<std::string> KeepText(const std::string& text) {
  std::string path = KeptName();
  const int fd = ::mkostemps(path.data(), kKeptEnding, O_CLOEXEC);  // of mode 0600
  if (fd < 0) return SystemError(ErrorCode::kUnavailable, "Your text cannot be kept", errno);
  const Status written = WriteAll(fd, text);
  ::close(fd);
  if (written) return path;
  ::unlink(path.c_str());
  return written.error();
}

AgainAnswer AskAgain() {
  if (::isatty(STDIN_FILENO) == 0 || ::isatty(STDERR_FILENO) == 0) return {};
  sigset_t held;
  sigset_t before;
  sigemptyset(&held);
  for (const int signal : {SIGINT, SIGTERM, SIGHUP}) sigaddset(&held, signal);
  ::sigprocmask(SIG_BLOCK, &held, &before);
  const int signals = ::signalfd(-1, &held, SFD_CLOEXEC);
  std::cerr << "Edit again? [Y/n] " << std::flush;
  AgainAnswer answer;
  std::array<pollfd, 2> polled{{{STDIN_FILENO, POLLIN, 0}, {signals, POLLIN, 0}}};
  while (::poll(polled.data(), polled.size(), -1) < 0 && errno == EINTR) {
  }
  signalfd_siginfo information{};
  if (polled[1].revents != 0 && ::read(signals, &information, sizeof information) == sizeof information) {
    answer = {Again::kInterrupted, static_cast<int>(information.ssi_signo)};
    std::cerr << '\n';
  } else {
    std::array<char, 256> line{};  // a terminal delivers whole lines
    const ssize_t count = ::read(STDIN_FILENO, line.data(), line.size());
    const bool is_yes = count > 0 && (line[0] == '\n' || line[0] == 'y' || line[0] == 'Y');
    answer.again = is_yes ? Again::kYes : Again::kNo;
  }
  ::close(signals);
  ::sigprocmask(SIG_SETMASK, &before, nullptr);
  return answer;
}

}  // namespace vexa::cli
