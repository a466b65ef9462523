// Makes system calls that a confined program must not make, in ways that do no harm when they are allowed, and a few
// that it needs. Prints a line for each: its name, and the error number of its failure, 0 for a success.
#include <fcntl.h>
#include <linux/bpf.h>
#include <linux/keyctl.h>
#include <linux/openat2.h>
#include <linux/perf_event.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/personality.h>
#include <sys/ptrace.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <functional>

namespace {

struct Call {
  const char* name;
  std::function<long()> make;  // negative, with errno: a failure
};

long Raw(long number, long a = 0, long b = 0, long c = 0, long d = 0, long e = 0, long f = 0) {
  return ::syscall(number, a, b, c, d, e, f);
}

// In a child, so that the first success does not change the next call.
long InChild(const std::function<long()>& make) {
  const pid_t child = ::fork();
  if (child < 0) return -1;
  if (child == 0) ::_exit(make() < 0 ? errno : 0);
  int status = 0;
  if (::waitpid(child, &status, 0) != child || !WIFEXITED(status)) status = ECHILD << 8;
  errno = WEXITSTATUS(status);
  return errno == 0 ? 0 : -1;
}

long MapMemory(int protection) {
  void* const memory = ::mmap(nullptr, 4096, protection, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  return memory == MAP_FAILED ? -1 : 0;
}

long MakeExecutable() {
  void* const memory = ::mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  return memory == MAP_FAILED ? -1 : ::mprotect(memory, 4096, PROT_READ | PROT_EXEC);
}

long OpenWithOpenat2() {
  open_how how{};
  how.flags = O_RDONLY;
  return Raw(SYS_openat2, AT_FDCWD, reinterpret_cast<long>("/"), reinterpret_cast<long>(&how), sizeof how);
}

long OpenPerformanceCounter() {
  perf_event_attr attributes{};
  attributes.size = sizeof attributes;
  attributes.type = PERF_TYPE_SOFTWARE;
  return Raw(SYS_perf_event_open, reinterpret_cast<long>(&attributes), 0, -1, -1, 0);
}

long RunInRealtime() {
  const sched_param parameter{.sched_priority = 1};
  return Raw(SYS_sched_setscheduler, 0, SCHED_FIFO, reinterpret_cast<long>(&parameter));
}

// An invalid magic number, a null pointer or a descriptor that is not open: where it is not forbidden, the kernel
// refuses the call with another error.
const Call kCalls[] = {
    {"ptrace", [] { return ::ptrace(PTRACE_TRACEME, 0, nullptr, nullptr); }},
    {"process_vm_readv", [] { return Raw(SYS_process_vm_readv, ::getpid(), 0, 0, 0, 0); }},
    {"mount", [] { return ::mount("none", "/nowhere-to-mount", "tmpfs", 0, nullptr); }},
    {"umount", [] { return ::umount("/nowhere-to-mount"); }},
    {"pivot_root", [] { return Raw(SYS_pivot_root); }},
    {"chroot", [] { return Raw(SYS_chroot); }},
    {"bpf", [] { return Raw(SYS_bpf, BPF_MAP_CREATE, 0, 0); }},
    {"perf_event_open", OpenPerformanceCounter},
    {"keyctl", [] { return Raw(SYS_keyctl, KEYCTL_GET_KEYRING_ID, KEY_SPEC_PROCESS_KEYRING, 1); }},
    {"add_key", [] { return Raw(SYS_add_key); }},
    {"reboot", [] { return Raw(SYS_reboot, 1, 1, 1); }},
    {"kexec_load", [] { return Raw(SYS_kexec_load, 0, 17, 0, 0); }},
    {"init_module", [] { return Raw(SYS_init_module); }},
    {"finit_module", [] { return Raw(SYS_finit_module, -1); }},
    {"delete_module", [] { return Raw(SYS_delete_module); }},
    {"swapon", [] { return Raw(SYS_swapon); }},
    {"clock_settime", [] { return Raw(SYS_clock_settime, 0, 0); }},
    {"sethostname", [] { return Raw(SYS_sethostname, 0, -1); }},
    {"syslog", [] { return Raw(SYS_syslog, 10); }},
    {"iopl", [] { return Raw(SYS_iopl, 0); }},
    {"setuid", [] { return Raw(SYS_setuid, ::getuid()); }},
    {"chown", [] { return Raw(SYS_chown); }},
    {"open_by_handle_at", [] { return Raw(SYS_open_by_handle_at, -1); }},
    {"userfaultfd", [] { return Raw(SYS_userfaultfd, 1 /* UFFD_USER_MODE_ONLY */); }},
    {"io_uring_setup", [] { return Raw(SYS_io_uring_setup, 1, 0); }},
    {"unshare_user", [] { return Raw(SYS_unshare, CLONE_NEWUSER); }},
    {"setns", [] { return Raw(SYS_setns, -1, 0); }},
    {"clone3", [] { return Raw(SYS_clone3); }},
    {"personality", [] { return Raw(SYS_personality, ADDR_NO_RANDOMIZE); }},
    {"realtime", RunInRealtime},
    {"set_id_file", [] { return ::mkdir("/nowhere-to-mount/x", 04700); }},
    {"openat2", OpenWithOpenat2},
    {"write_execute", [] { return MapMemory(PROT_READ | PROT_WRITE | PROT_EXEC); }},
    {"make_executable", MakeExecutable},
    {"packet_socket", [] { return Raw(SYS_socket, AF_PACKET, SOCK_RAW, 0); }},
    {"vsock_socket", [] { return Raw(SYS_socket, AF_VSOCK, SOCK_STREAM, 0); }},
    {"seccomp", [] { return Raw(SYS_seccomp, 2 /* SECCOMP_GET_ACTION_AVAIL */, 0, 0); }},
    {"unix_socket", [] { return Raw(SYS_socket, AF_UNIX, SOCK_STREAM, 0); }},
    {"netlink_socket", [] { return Raw(SYS_socket, AF_NETLINK, SOCK_RAW, 0); }},
    {"read_write_memory", [] { return MapMemory(PROT_READ | PROT_WRITE); }},
    {"open", [] { return Raw(SYS_openat, AT_FDCWD, reinterpret_cast<long>("/"), O_RDONLY); }},
};

}  // namespace

int main() {
  for (const Call& call : kCalls) {
    const bool has_failed = InChild(call.make) < 0;
    std::printf("%s %d\n", call.name, has_failed ? errno : 0);
  }
}
