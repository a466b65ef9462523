#include "tests/powerloss/traced_program.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <seccomp.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/ptrace.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <filesystem>
#include <map>
#include <set>
#include <vector>

#include "tests/support/check.h"

namespace vexa::powerloss {
namespace {

using test::Check;

std::atomic<pid_t> program = -1;  // for the signal handler

std::atomic<bool> is_kill_requested = false;

extern "C" void PassOn(int signal) {
  if (program > 0) ::kill(program, signal);
}

extern "C" void RequestKill(int) { is_kill_requested = true; }

void Handle(int signal, void (*handler)(int)) {
  struct sigaction action {};
  action.sa_handler = handler;
  Check(::sigaction(signal, &action, nullptr) == 0, "sigaction");
}

// In the child: system calls that can change a file stop at the tracer, all others run at full speed.
void LoadFilter() {
  scmp_filter_ctx filter = ::seccomp_init(SCMP_ACT_ALLOW);
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
  const auto has_flag = [](unsigned argument, std::uint64_t flag) {
    return scmp_arg_cmp{argument, SCMP_CMP_MASKED_EQ, flag, flag};
  };
  const auto trace = [&](int number, const std::vector<scmp_arg_cmp>& arguments) {
    const int failure = ::seccomp_rule_add_array(filter, SCMP_ACT_TRACE(0), number,
                                                 static_cast<unsigned>(arguments.size()), arguments.data());
    Check(failure == 0, "seccomp_rule_add_array");
  };
  for (const std::uint64_t flag : {O_CREAT, O_TRUNC, O_TMPFILE & ~O_DIRECTORY}) {
    trace(SCMP_SYS(openat), {has_flag(2, flag)});
    trace(SCMP_SYS(open), {has_flag(1, flag)});
  }
  trace(SCMP_SYS(mmap), {has_flag(2, PROT_WRITE), has_flag(3, MAP_SHARED)});
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
      if (is_kill_requested && calls_.empty()) KillStarted();
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
  void KillStarted() {
    is_kill_requested = false;
    for (const pid_t thread : known_) {
      const bool is_program = std::filesystem::exists(fmt::format("/proc/{}/task/{}", child_, thread));
      if (!is_program) ::kill(thread, SIGKILL);
    }
  }

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
  for (const int signal : {SIGTERM, SIGINT}) Handle(signal, PassOn);
  Handle(SIGUSR1, RequestKill);
  return Tracer(child, watcher).Run();
}

}  // namespace vexa::powerloss
