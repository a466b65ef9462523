#include "tests/powerloss/traced_program.h"

#include <fcntl.h>
#include <seccomp.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/ptrace.h>
#include <sys/uio.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <map>
#include <set>

#include "tests/support/check.h"

namespace vexa::powerloss {
namespace {

using test::Check;

std::atomic<pid_t> program = -1;  // for the signal handler

extern "C" void PassOn(int signal) {
  if (program > 0) ::kill(program, signal);
}

// In the child: system calls that can change a file stop at the tracer, all others run at full speed.
void LoadFilter() {
  const scmp_filter_ctx filter = ::seccomp_init(SCMP_ACT_ALLOW);
  Check(filter != nullptr, "seccomp_init");
  constexpr const char* kCalls[] = {
      "write",     "writev",    "pwrite64",  "pwritev",         "pwritev2",  "sendto",         "sendmsg",  "sendmmsg",
      "ftruncate", "truncate",  "fallocate", "fsync",           "fdatasync", "sync",           "syncfs",   "rename",
      "renameat",  "renameat2", "link",      "linkat",          "unlink",    "unlinkat",       "mkdir",    "mkdirat",
      "rmdir",     "symlink",   "symlinkat", "mknod",           "mknodat",   "chmod",          "fchmod",   "fchmodat",
      "creat",     "openat2",   "sendfile",  "copy_file_range", "splice",    "io_uring_setup", "io_submit"};
  for (const char* const name : kCalls) {
    const int number = ::seccomp_syscall_resolve_name(name);
    if (number == __NR_SCMP_ERROR || number < 0) continue;  // this architecture does not have it
    Check(::seccomp_rule_add(filter, SCMP_ACT_TRACE(0), number, 0) == 0, name);
  }
  for (const std::uint64_t flag : {O_CREAT, O_TRUNC, O_TMPFILE & ~O_DIRECTORY}) {
    Check(::seccomp_rule_add(filter, SCMP_ACT_TRACE(0), SCMP_SYS(openat), 1, SCMP_A2(SCMP_CMP_MASKED_EQ, flag, flag)) ==
              0,
          "openat");
    Check(
        ::seccomp_rule_add(filter, SCMP_ACT_TRACE(0), SCMP_SYS(open), 1, SCMP_A1(SCMP_CMP_MASKED_EQ, flag, flag)) == 0,
        "open");
  }
  Check(::seccomp_rule_add(filter, SCMP_ACT_TRACE(0), SCMP_SYS(mmap), 2,
                           SCMP_A2(SCMP_CMP_MASKED_EQ, PROT_WRITE, PROT_WRITE),
                           SCMP_A3(SCMP_CMP_MASKED_EQ, MAP_SHARED, MAP_SHARED)) == 0,
        "mmap");
  Check(::seccomp_load(filter) == 0, "seccomp_load");
  ::seccomp_release(filter);
}

pid_t Start(char** argv) {
  const pid_t child = ::fork();
  Check(child >= 0, "fork");
  if (child == 0) {
    Check(::ptrace(PTRACE_TRACEME, 0, nullptr, nullptr) == 0, "ptrace");
    ::raise(SIGSTOP);
    LoadFilter();
    ::execvp(argv[0], argv);
    Check(false, argv[0]);
  }
  int status = 0;
  Check(::waitpid(child, &status, 0) == child && WIFSTOPPED(status), "waitpid");
  const long options = PTRACE_O_EXITKILL | PTRACE_O_TRACESYSGOOD | PTRACE_O_TRACESECCOMP | PTRACE_O_TRACEEXEC |
                       PTRACE_O_TRACECLONE | PTRACE_O_TRACEFORK | PTRACE_O_TRACEVFORK;
  Check(::ptrace(PTRACE_SETOPTIONS, child, nullptr, options) == 0, "ptrace");
  return child;
}

class Tracer {
 public:
  Tracer(pid_t child, CallWatcher& watcher) : child_(child), watcher_(watcher), known_{child} {}

  int Run() {
    Continue(child_, PTRACE_CONT, 0);
    while (true) {
      int status = 0;
      const pid_t thread = ::waitpid(-1, &status, __WALL);
      if (thread < 0 && errno == EINTR) continue;
      Check(thread >= 0, "waitpid");
      if (WIFSTOPPED(status)) {
        HandleStop(thread, status);
        continue;
      }
      calls_.erase(thread);
      known_.erase(thread);
      if (thread != child_) continue;
      return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }
  }

 private:
  void HandleStop(pid_t thread, int status) {
    const int signal = WSTOPSIG(status);
    const int event = status >> 16;
    if (event == PTRACE_EVENT_SECCOMP) {
      Begin(thread);
    } else if (signal == (SIGTRAP | 0x80)) {
      End(thread);
    } else if (event != 0) {
      Continue(thread, PTRACE_CONT, 0);
    } else {
      // A new thread begins with a stop of its own.
      const bool is_new = known_.insert(thread).second && signal == SIGSTOP;
      Continue(thread, PTRACE_CONT, is_new ? 0 : signal);
    }
  }

  void Begin(pid_t thread) {
    __ptrace_syscall_info info{};
    if (!Query(thread, info)) return;
    SystemCall call;
    call.number = static_cast<long>(info.seccomp.nr);
    for (std::size_t i = 0; i < call.arguments.size(); ++i) call.arguments.at(i) = info.seccomp.args[i];
    watcher_.Begin(thread, call);
    calls_[thread] = call;
    Continue(thread, PTRACE_SYSCALL, 0);
  }

  void End(pid_t thread) {
    __ptrace_syscall_info info{};
    if (!Query(thread, info)) return;
    const auto call = calls_.find(thread);
    if (call != calls_.end() && info.op == PTRACE_SYSCALL_INFO_EXIT) {
      watcher_.End(thread, call->second, info.exit.rval);
      calls_.erase(call);
    }
    Continue(thread, PTRACE_CONT, 0);
  }

  // False: the thread was killed meanwhile.
  static bool Query(pid_t thread, __ptrace_syscall_info& info) {
    return ::ptrace(PTRACE_GET_SYSCALL_INFO, thread, sizeof info, &info) > 0;
  }

  static void Continue(pid_t thread, __ptrace_request how, long signal) {
    Check(::ptrace(how, thread, nullptr, signal) == 0 || errno == ESRCH, "ptrace");
  }

  const pid_t child_;
  CallWatcher& watcher_;
  std::set<pid_t> known_;
  std::map<pid_t, SystemCall> calls_;  // in progress
};

}  // namespace

int RunTraced(char** argv, CallWatcher& watcher) {
  const pid_t child = Start(argv);
  program = child;
  for (const int signal : {SIGTERM, SIGINT}) {
    struct sigaction action {};
    action.sa_handler = PassOn;
    Check(::sigaction(signal, &action, nullptr) == 0, "sigaction");
  }
  return Tracer(child, watcher).Run();
}

std::string ReadMemory(pid_t thread, std::uint64_t address, std::size_t bytes) {
  std::string text(bytes, '\0');
  const iovec local{text.data(), bytes};
  const iovec remote{reinterpret_cast<void*>(address), bytes};
  const ssize_t count = ::process_vm_readv(thread, &local, 1, &remote, 1, 0);
  text.resize(count < 0 ? 0 : static_cast<std::size_t>(count));
  return text;
}

std::string ReadText(pid_t thread, std::uint64_t address) {
  constexpr std::uint64_t kPage = 4096;
  std::string text;
  while (text.size() < PATH_MAX) {
    // Up to the end of the page: the next one may not exist.
    const std::string more = ReadMemory(thread, address + text.size(), kPage - (address + text.size()) % kPage);
    const std::size_t end = more.find('\0');
    text += more.substr(0, end);
    if (end != std::string::npos || more.empty()) break;
  }
  return text;
}

}  // namespace vexa::powerloss
