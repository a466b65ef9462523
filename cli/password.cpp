#include "cli/password.h"

#include <fmt/format.h>

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/signalfd.h>
#include <termios.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <string_view>

namespace vexa::cli {
namespace {

// Reads one line of `fd`, byte by byte, so that the following input is left for later reads. `interrupt_fd`, if not
// negative, becomes readable when a signal arrives.
Result<std::string> ReadLine(int fd, int interrupt_fd) {
  std::string line;
  while (true) {
    if (interrupt_fd >= 0) {
      std::array<pollfd, 2> polled{{{fd, POLLIN, 0}, {interrupt_fd, POLLIN, 0}}};
      if (::poll(polled.data(), polled.size(), -1) < 0 && errno != EINTR) {
        return SystemError(ErrorCode::kUnavailable, "Cannot read the password", errno);
      }
      if (polled[1].revents != 0) return Error(ErrorCode::kUnavailable, "Interrupted");
      if (polled[0].revents == 0) continue;
    }
    char c = 0;
    const ssize_t count = ::read(fd, &c, 1);
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return SystemError(ErrorCode::kUnavailable, "Cannot read the password", errno);
    if (count == 0 || c == '\n') break;
    if (line.size() == kMaxPasswordBytes) {
      return Error(ErrorCode::kInvalid, fmt::format("The password is longer than {} bytes", kMaxPasswordBytes));
    }
    line += c;
  }
  if (line.empty()) return Error(ErrorCode::kInvalid, "The password is empty");
  if (line.find('\0') != std::string::npos) return Error(ErrorCode::kInvalid, "The password contains a NUL character");
  return line;
}

// During its lifetime, the terminal does not echo, and signals that would end or stop the program are blocked, so that
// the terminal is always restored.
class SilentTerminal {
 public:
  SilentTerminal() : fd_(::open("/dev/tty", O_RDWR | O_CLOEXEC | O_NOCTTY)) {
    if (fd_ < 0 || ::tcgetattr(fd_, &original_) != 0) return;
    sigset_t blocked;
    sigemptyset(&blocked);
    for (const int signal : {SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGTSTP}) sigaddset(&blocked, signal);
    ::sigprocmask(SIG_BLOCK, &blocked, &original_mask_);
    signals_ = ::signalfd(-1, &blocked, SFD_CLOEXEC);
    termios silent = original_;
    silent.c_lflag &= ~static_cast<tcflag_t>(ECHO);
    is_silent_ = ::tcsetattr(fd_, TCSAFLUSH, &silent) == 0;
    are_signals_blocked_ = true;
  }
  ~SilentTerminal() {
    if (is_silent_) ::tcsetattr(fd_, TCSAFLUSH, &original_);
    if (is_silent_) Write("\n");
    if (are_signals_blocked_) ::sigprocmask(SIG_SETMASK, &original_mask_, nullptr);
    for (const int fd : {signals_, fd_}) {
      if (fd >= 0) ::close(fd);
    }
  }
  SilentTerminal(const SilentTerminal&) = delete;
  SilentTerminal& operator=(const SilentTerminal&) = delete;

  bool is_silent() const { return is_silent_; }
  int fd() const { return fd_; }
  int signals() const { return signals_; }

  void Write(std::string_view text) const {
    while (!text.empty()) {
      const ssize_t count = ::write(fd_, text.data(), text.size());
      if (count <= 0) return;  // Intentional: the password can be read without the prompt
      text.remove_prefix(static_cast<std::size_t>(count));
    }
  }

 private:
  int fd_;
  int signals_ = -1;
  bool is_silent_ = false;
  bool are_signals_blocked_ = false;
  termios original_{};
  sigset_t original_mask_{};
};

}  // namespace

Result<std::string> AskPassword(const std::string& prompt) {
  const SilentTerminal terminal;
  if (!terminal.is_silent()) {
    return Error(ErrorCode::kUnavailable, "There is no terminal for a password prompt. Use --password-stdin");
  }
  terminal.Write(prompt);
  return ReadLine(terminal.fd(), terminal.signals());
}

Result<std::string> ReadPasswordLine() { return ReadLine(STDIN_FILENO, -1); }

Result<std::string> GetPassword(PasswordSource source, const std::string& prompt) {
  return source == PasswordSource::kStandardInput ? ReadPasswordLine() : AskPassword(prompt + ": ");
}

Result<std::string> GetNewPassword(PasswordSource source, const std::string& prompt) {
  if (source == PasswordSource::kStandardInput) return ReadPasswordLine();
  Result<std::string> first = AskPassword(prompt + ": ");
  if (!first) return first;
  const Result<std::string> second = AskPassword(prompt + " again: ");
  if (!second) return second;
  if (*first != *second) return Error(ErrorCode::kInvalid, "The two passwords are not the same");
  return first;
}

}  // namespace vexa::cli
