#include "tests/support/process.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/eventfd.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <thread>

namespace vexa::test {
namespace {

using Clock = std::chrono::steady_clock;

// A process that was left behind may hold the pipes indefinitely; they are drained for this long.
constexpr auto kDrainTime = std::chrono::seconds(5);

[[noreturn]] void Die(const std::string& what, int error_number) {
  std::fprintf(stderr, "%s: %s\n", what.c_str(), std::strerror(error_number));
  std::abort();
}

void CloseFd(int& fd) {
  if (fd >= 0) ::close(fd);
  fd = -1;
}

std::array<int, 2> MakePipe() {
  std::array<int, 2> ends{};
  if (::pipe2(ends.data(), O_CLOEXEC) != 0) Die("Cannot create a pipe", errno);
  return ends;
}

std::vector<std::string> MakeEnvironment(const std::map<std::string, std::optional<std::string>>& changes) {
  std::vector<std::string> result;
  for (char** entry = environ; *entry != nullptr; ++entry) {
    const std::string_view text = *entry;
    if (!changes.contains(std::string(text.substr(0, text.find('='))))) result.emplace_back(text);
  }
  for (const auto& [name, value] : changes) {
    if (value) result.push_back(name + "=" + *value);
  }
  return result;
}

std::vector<char*> Pointers(std::vector<std::string>& texts) {
  std::vector<char*> pointers;
  for (auto& text : texts) pointers.push_back(text.data());
  pointers.push_back(nullptr);
  return pointers;
}

}  // namespace

class Process::Impl {
 public:
  explicit Impl(const ProcessOptions& options) : input_(options.input) {
    Spawn(options);
    stop_ = ::eventfd(0, EFD_CLOEXEC);
    // The C library's header for pidfd_open cannot be used from C++.
    pidfd_ = static_cast<int>(::syscall(SYS_pidfd_open, pid_, 0));
    if (stop_ < 0 || pidfd_ < 0) Die("Cannot watch the program", errno);
    pump_ = std::thread([this] { Pump(); });
  }

  ~Impl() {
    {
      const std::lock_guard lock(mutex_);
      if (!status_) ::kill(-pid_, SIGKILL);
    }
    Wait(std::chrono::hours(1));
    const std::uint64_t one = 1;
    if (::write(stop_, &one, sizeof one) != sizeof one) Die("Cannot stop the collecting thread", errno);
    pump_.join();
    for (int* fd : {&in_, &out_, &err_, &stop_, &pidfd_}) CloseFd(*fd);
  }

  pid_t pid() const { return pid_; }

  void Signal(int signal) {
    // Under the lock: once the status is set, the process id may belong to another process.
    const std::lock_guard lock(mutex_);
    if (!status_) ::kill(pid_, signal);
  }

  std::optional<ExitStatus> Wait(std::chrono::milliseconds timeout) {
    std::unique_lock lock(mutex_);
    const auto deadline = Clock::now() + timeout;
    if (!changed_.wait_until(lock, deadline, [this] { return status_.has_value(); })) return std::nullopt;
    changed_.wait_until(lock, Clock::now() + kDrainTime, [this] { return drained_; });
    return status_;
  }

  bool IsRunning() {
    const std::lock_guard lock(mutex_);
    return !status_.has_value();
  }

  std::string Text(const std::string& which) const {
    const std::lock_guard lock(mutex_);
    return which;
  }

  bool WaitForText(std::string_view text, std::chrono::milliseconds timeout) {
    std::unique_lock lock(mutex_);
    const auto found = [&] {
      return output_.find(text) != std::string::npos || errors_.find(text) != std::string::npos;
    };
    changed_.wait_until(lock, Clock::now() + timeout, [&] { return found() || (status_ && drained_); });
    return found();
  }

  std::string output_;
  std::string errors_;

 private:
  void Spawn(const ProcessOptions& options) {
    if (options.argv.empty()) Die("No program was named", EINVAL);
    auto in = MakePipe();
    auto out = MakePipe();
    auto err = MakePipe();
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, in[0], STDIN_FILENO);
    posix_spawn_file_actions_adddup2(&actions, out[1], STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&actions, err[1], STDERR_FILENO);
    if (!options.working_directory.empty()) {
      posix_spawn_file_actions_addchdir_np(&actions, options.working_directory.c_str());
    }
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    sigset_t none;
    sigemptyset(&none);
    sigset_t restored;
    sigemptyset(&restored);
    for (const int signal : {SIGPIPE, SIGINT, SIGTERM, SIGHUP, SIGCHLD}) sigaddset(&restored, signal);
    posix_spawnattr_setsigmask(&attributes, &none);
    posix_spawnattr_setsigdefault(&attributes, &restored);
    posix_spawnattr_setpgroup(&attributes, 0);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETPGROUP | POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);

    std::vector<std::string> arguments = options.argv;
    std::vector<std::string> environment = MakeEnvironment(options.environment);
    const int failure = ::posix_spawnp(&pid_, arguments[0].c_str(), &actions, &attributes, Pointers(arguments).data(),
                                       Pointers(environment).data());
    posix_spawn_file_actions_destroy(&actions);
    posix_spawnattr_destroy(&attributes);
    for (int* fd : {&in[0], &out[1], &err[1]}) CloseFd(*fd);
    if (failure != 0) Die("Cannot start '" + options.argv[0] + "'", failure);
    in_ = in[1];
    out_ = out[0];
    err_ = err[0];
    for (const int fd : {in_, out_, err_}) ::fcntl(fd, F_SETFL, O_NONBLOCK);
  }

  void Pump() {
    // A program that does not read its input must not end the test.
    sigset_t pipe;
    sigemptyset(&pipe);
    sigaddset(&pipe, SIGPIPE);
    ::pthread_sigmask(SIG_BLOCK, &pipe, nullptr);
    while (true) {
      if (input_.empty()) CloseFd(in_);
      std::array<pollfd, 5> polled{
          {{stop_, POLLIN, 0}, {pidfd_, POLLIN, 0}, {out_, POLLIN, 0}, {err_, POLLIN, 0}, {in_, POLLOUT, 0}}};
      if (::poll(polled.data(), polled.size(), -1) < 0 && errno != EINTR) Die("Cannot poll", errno);
      if (polled[0].revents != 0) return;
      if (polled[2].revents != 0) Collect(out_, output_);
      if (polled[3].revents != 0) Collect(err_, errors_);
      if (polled[4].revents != 0) Feed();
      if (polled[1].revents != 0) Reap();
    }
  }

  void Collect(int& fd, std::string& into) {
    std::array<char, 65536> buffer;
    const ssize_t count = ::read(fd, buffer.data(), buffer.size());
    if (count < 0 && (errno == EAGAIN || errno == EINTR)) return;
    const std::lock_guard lock(mutex_);
    if (count > 0) {
      into.append(buffer.data(), static_cast<std::size_t>(count));
    } else {
      CloseFd(fd);
    }
    drained_ = out_ < 0 && err_ < 0;
    changed_.notify_all();
  }

  void Feed() {
    const ssize_t count = ::write(in_, input_.data(), input_.size());
    if (count < 0 && (errno == EAGAIN || errno == EINTR)) return;
    input_.erase(0, count < 0 ? input_.size() : static_cast<std::size_t>(count));
  }

  void Reap() {
    const std::lock_guard lock(mutex_);
    int status = 0;
    if (::waitpid(pid_, &status, 0) != pid_) Die("Cannot wait for the program", errno);
    status_.emplace();
    if (WIFEXITED(status)) status_->code = WEXITSTATUS(status);
    if (WIFSIGNALED(status)) status_->signal = WTERMSIG(status);
    CloseFd(pidfd_);
    changed_.notify_all();
  }

  mutable std::mutex mutex_;
  std::condition_variable changed_;
  std::optional<ExitStatus> status_;
  bool drained_ = false;

  pid_t pid_ = -1;
  std::string input_;
  int in_ = -1;
  int out_ = -1;
  int err_ = -1;
  int stop_ = -1;
  int pidfd_ = -1;
  std::thread pump_;
};

Process::Process(const ProcessOptions& options) : impl_(std::make_unique<Impl>(options)) {}
Process::~Process() = default;
pid_t Process::pid() const { return impl_->pid(); }
void Process::Signal(int signal) { impl_->Signal(signal); }
std::optional<ExitStatus> Process::Wait(std::chrono::milliseconds timeout) { return impl_->Wait(timeout); }
bool Process::IsRunning() { return impl_->IsRunning(); }
std::string Process::output() const { return impl_->Text(impl_->output_); }
std::string Process::errors() const { return impl_->Text(impl_->errors_); }
bool Process::WaitForText(std::string_view text, std::chrono::milliseconds timeout) {
  return impl_->WaitForText(text, timeout);
}

ProcessResult RunProcess(const ProcessOptions& options, std::chrono::milliseconds timeout) {
  Process process(options);
  const auto status = process.Wait(timeout);
  ProcessResult result;
  result.timed_out = !status.has_value();
  if (status) result.exit_code = status->code.value_or(-1);
  result.output = process.output();
  result.errors = process.errors();
  return result;
}

}  // namespace vexa::test
