#include "host/disks/image_copy.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <charconv>
#include <string_view>
#include <utility>

#include "host/base/sanitize_for_log.h"

namespace vexa::disks {
namespace {

using std::chrono::steady_clock;

constexpr int kSourceFd = 3;
constexpr int kTargetFd = 4;
constexpr int kFirstOtherFd = 10;
constexpr std::chrono::milliseconds kPollInterval{100};
constexpr std::size_t kMaxOutputBytes = 4096;
constexpr std::size_t kMaxSaidBytes = 512;

// In the child, where only functions that are safe after fork(2) may be called.
[[noreturn]] void RunChild(const char* program, const char* const* arguments, int source, int target, int output,
                           pid_t parent) {
  (void)::prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (::getppid() != parent) ::_exit(127);
  sigset_t none;
  ::sigemptyset(&none);
  ::sigprocmask(SIG_SETMASK, &none, nullptr);
  const int null = ::open("/dev/null", O_RDONLY);
  const bool is_ready = ::dup2(null, STDIN_FILENO) >= 0 && ::dup2(output, STDOUT_FILENO) >= 0 &&
                        ::dup2(output, STDERR_FILENO) >= 0 && ::dup2(source, kSourceFd) >= 0 &&
                        ::dup2(target, kTargetFd) >= 0;
  if (!is_ready || ::close_range(kTargetFd + 1, ~0U, 0) != 0) ::_exit(127);
  const char* const environment[] = {"LC_ALL=C", nullptr};
  ::execve(program, const_cast<char* const*>(arguments), const_cast<char* const*>(environment));
  ::_exit(127);
}

// The last percentage in the output: "    (12.34/100%)".
std::optional<int> LastPercentage(std::string_view output) {
  const std::size_t end = output.rfind("/100%)");
  if (end == std::string_view::npos) return std::nullopt;
  const std::size_t begin = output.rfind('(', end);
  if (begin == std::string_view::npos) return std::nullopt;
  int percent = 0;
  const std::string_view number = output.substr(begin + 1, end - begin - 1);
  const auto [rest, error] = std::from_chars(number.data(), number.data() + number.size(), percent);
  if (error != std::errc() || percent < 0 || percent > 100) return std::nullopt;
  return percent;
}

// What the program said apart from its progress.
std::string SaidIn(std::string_view output) {
  const std::size_t begin = output.find("qemu-img:");
  return SanitizeForLog(std::string(begin == std::string_view::npos ? output : output.substr(begin)), kMaxSaidBytes);
}

// The program does not wait for the lock of a machine that has the image open.
bool IsInUse(std::string_view output) { return output.find("Is another process using the image") != output.npos; }

struct Child {
  pid_t pid = 0;
  Descriptor output;
};

Result<Child> Start(const SourceImage& source, int target, domain_xml::ImageFormat target_format,
                    const std::string& program) {
  int ends[2] = {-1, -1};
  if (::pipe2(ends, O_CLOEXEC) != 0) return SystemError(ErrorCode::kInternal, "Cannot create a pipe", errno);
  Child child{0, Descriptor(ends[0])};
  const Descriptor write_end(::fcntl(ends[1], F_DUPFD_CLOEXEC, kFirstOtherFd));
  ::close(ends[1]);
  const Descriptor from(::fcntl(source.file.get(), F_DUPFD_CLOEXEC, kFirstOtherFd));
  const Descriptor to(::fcntl(target, F_DUPFD_CLOEXEC, kFirstOtherFd));
  if (write_end.get() < 0 || from.get() < 0 || to.get() < 0) {
    return SystemError(ErrorCode::kInternal, "Cannot copy a file descriptor", errno);
  }
  const bool is_raw = target_format == domain_xml::ImageFormat::kRaw;
  const std::string source_name = fmt::format("/proc/self/fd/{}", kSourceFd);
  const std::string target_name = fmt::format("/proc/self/fd/{}", kTargetFd);
  const std::array<const char*, 13> arguments{program.c_str(),
                                              "convert",
                                              "-p",
                                              "-n",
                                              "--target-is-zero",
                                              "-f",
                                              SourceFormatName(source.format),
                                              "-O",
                                              is_raw ? "raw" : "qcow2",
                                              source_name.c_str(),
                                              target_name.c_str(),
                                              nullptr};
  const pid_t parent = ::getpid();
  child.pid = ::fork();
  if (child.pid < 0) return SystemError(ErrorCode::kInternal, "Cannot create a process", errno);
  if (child.pid == 0) {
    RunChild(program.c_str(), arguments.data(), from.get(), to.get(), write_end.get(), parent);
  }
  return child;
}

int Await(pid_t pid) {
  int status = 0;
  while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
  return status;
}

// Reads the output until the program closes it. An error: the program must end before.
Status Follow(const Child& child, const CopyOptions& options, std::string& output) {
  int percent = -1;
  auto last_progress = steady_clock::now();
  while (true) {
    pollfd news{child.output.get(), POLLIN, 0};
    (void)::poll(&news, 1, static_cast<int>(kPollInterval.count()));
    if (options.must_stop && options.must_stop()) {
      return Error(ErrorCode::kUnavailable, "the host is stopping");
    }
    if (steady_clock::now() - last_progress > options.stall_timeout) {
      return Error(ErrorCode::kUnavailable,
                   fmt::format("there was no progress for {} s",
                               std::chrono::duration_cast<std::chrono::seconds>(options.stall_timeout).count()));
    }
    if ((news.revents & (POLLIN | POLLHUP | POLLERR)) == 0) continue;
    std::array<char, 1024> bytes{};
    const ssize_t got = ::read(child.output.get(), bytes.data(), bytes.size());
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) return {};
    output.append(bytes.data(), static_cast<std::size_t>(got));
    if (output.size() > kMaxOutputBytes) output.erase(0, output.size() - kMaxOutputBytes);
    const std::optional<int> now = LastPercentage(output);
    if (!now || *now == percent) continue;
    percent = *now;
    last_progress = steady_clock::now();
    if (options.on_progress) options.on_progress(percent);
  }
}

}  // namespace

Status CopyImage(const SourceImage& source, int target, domain_xml::ImageFormat target_format,
                 const CopyOptions& options) {
  const auto fail = [&](ErrorCode code, const std::string& why) {
    return Error(code, fmt::format("The image '{}' could not be copied: {}", SanitizePathForLog(source.path), why));
  };
  Result<Child> child = Start(source, target, target_format, options.program);
  if (!child) return fail(ErrorCode::kInternal, child.error().ToString());
  std::string output;
  const Status followed = Follow(*child, options, output);
  if (!followed) ::kill(child->pid, SIGKILL);
  const int status = Await(child->pid);
  if (!followed) return fail(followed.error().code(), followed.error().message());
  if (WIFSIGNALED(status)) {
    return fail(ErrorCode::kInternal, fmt::format("the copying program was ended by the signal {}", WTERMSIG(status)));
  }
  if (WEXITSTATUS(status) == 127) {
    return fail(ErrorCode::kInternal, fmt::format("the program '{}' could not be run", options.program));
  }
  if (WEXITSTATUS(status) != 0 && IsInUse(output)) {
    return fail(ErrorCode::kInternal, "a machine uses it. Shut that machine down first");
  }
  if (WEXITSTATUS(status) != 0) return fail(ErrorCode::kInternal, SaidIn(output));
  if (::fsync(target) != 0) {
    return fail(ErrorCode::kInternal, SystemError(ErrorCode::kInternal, "it cannot be synced", errno).ToString());
  }
  return {};
}

}  // namespace vexa::disks
