#include "tests/support/network_namespace.h"

#include <sched.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>

#include "tests/support/process.h"

namespace vexa::test {
namespace {

// Set in the process that has the namespaces, or says why it has none.
constexpr const char* kEntered = "VEXA_TEST_NETWORKS";
constexpr const char* kRefused = "VEXA_TEST_NO_NETWORKS";

[[noreturn]] void Fail(const std::string& what) {
  std::fprintf(stderr, "%s: %s\n", what.c_str(), std::strerror(errno));
  std::abort();
}

void Refuse(const std::string& why) { ::setenv(kRefused, (why + ": " + std::strerror(errno)).c_str(), 1); }

void MountEmpty(const char* folder) {
  ::mkdir(folder, 0755);
  if (::mount("vexa-test", folder, "tmpfs", MS_NOSUID | MS_NODEV, "mode=0755") != 0) Fail(folder);
}

// A system libvirtd does not start without the user for its guests, which only some packages create.
void AddLibvirtUser(const char* path, const std::string& line) {
  std::ostringstream content;
  content << std::ifstream(path).rdbuf();
  if (content.str().find("\nlibvirt-qemu:") != std::string::npos) return;
  std::string copy = std::string("/run/") + (path + std::strlen("/etc/"));
  std::ofstream(copy) << content.str() << line << "\n";
  if (::mount(copy.c_str(), path, nullptr, MS_BIND, nullptr) != 0) Fail(path);
}

void MakeOwnFolders() {
  if (::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) Fail("/");
  if (::mount("proc", "/proc", "proc", 0, nullptr) != 0) Fail("/proc");
  // It shows the networks of the process that mounts it.
  if (::mount("sysfs", "/sys", "sysfs", 0, nullptr) != 0) Fail("/sys");
  // Guests are emulated, as in the tests that give up root: a machine's KVM can stop them after a while.
  if (::access("/dev/kvm", F_OK) == 0 && ::mount("/dev/null", "/dev/kvm", nullptr, MS_BIND, nullptr) != 0) {
    Fail("/dev/kvm");
  }
  // libvirt looks for it, and works without it.
  (void)::mount("cgroup2", "/sys/fs/cgroup", "cgroup2", 0, nullptr);
  for (const char* const folder :
       {"/run", "/etc/libvirt", "/var/lib/libvirt", "/var/log/libvirt", "/var/cache/libvirt"}) {
    MountEmpty(folder);
  }
  ::mkdir("/run/tests", 0755);
  ::mkdir("/run/lock", 01777);  // for libvirt's consoles
  ::setenv("TMPDIR", "/run/tests", 1);
  AddLibvirtUser("/etc/passwd", "libvirt-qemu:x:64055:64055::/var/lib/libvirt:/usr/sbin/nologin");
  AddLibvirtUser("/etc/group", "libvirt-qemu:x:64055:");
}

// Also reaps all other children: otherwise guests whose libvirtd is gone would count as running.
[[noreturn]] void ExitWithStatusOf(pid_t program) {
  for (;;) {
    int status = 0;
    const pid_t ended = ::waitpid(-1, &status, 0);
    if (ended == program) ::_exit(WIFEXITED(status) ? WEXITSTATUS(status) : 1);
    if (ended < 0 && errno != EINTR) ::_exit(1);
  }
}

}  // namespace

void EnterNetworkNamespace(char** argv) {
  if (std::getenv(kEntered) != nullptr) return;
  if (::geteuid() != 0) return Refuse("only root can make networks of its own");
  if (::unshare(CLONE_NEWNET | CLONE_NEWNS | CLONE_NEWPID) != 0) return Refuse("the kernel gives no namespaces");
  std::fflush(nullptr);
  const pid_t child = ::fork();
  if (child < 0) Fail("fork");
  if (child == 0) {
    // Its end is the end of every process in the namespace.
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    MakeOwnFolders();
    const pid_t program = ::fork();
    if (program < 0) Fail("fork");
    if (program != 0) ExitWithStatusOf(program);
    ::setenv(kEntered, "1", 1);
    ::execv("/proc/self/exe", argv);
    Fail("exec");
  }
  ExitWithStatusOf(child);
}

std::string NamespaceUnavailableReason() {
  const char* const refused = std::getenv(kRefused);
  return refused != nullptr ? refused : "";
}

std::string RunTool(const std::vector<std::string>& words) {
  const ProcessResult result = RunProcess({.argv = words});
  if (result.exit_code != 0) {
    std::string line;
    for (const std::string& word : words) line += word + " ";
    std::fprintf(stderr, "%sfails: %s%s\n", line.c_str(), result.output.c_str(), result.errors.c_str());
    std::abort();
  }
  return result.output;
}

Cable::Cable(std::string port) : port_(std::move(port)), other_end_(port_ + "-far") {
  RunTool({"ip", "link", "add", port_, "type", "veth", "peer", "name", other_end_});
  RunTool({"ip", "link", "set", port_, "up"});
  PlugIn();
}

Cable::~Cable() { RunTool({"ip", "link", "delete", port_}); }

void Cable::PullOut() const { RunTool({"ip", "link", "set", other_end_, "down"}); }
void Cable::PlugIn() const { RunTool({"ip", "link", "set", other_end_, "up"}); }

}  // namespace vexa::test
