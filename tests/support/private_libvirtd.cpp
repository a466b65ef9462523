#include "tests/support/private_libvirtd.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <thread>

namespace vexa::test {
namespace {

constexpr char kProgram[] = "/usr/sbin/libvirtd";

[[noreturn]] void Fail(const std::string& what) {
  std::fprintf(stderr, "%s\n", what.c_str());
  std::abort();
}

}  // namespace

std::string WhyNoPrivateLibvirtd() {
  std::string why_not = WhyNoQemuGuests();
  if (!why_not.empty()) return why_not;
  static const bool can_run = CanNobodyRun(kProgram);
  return can_run ? "" : std::string("there is no ") + kProgram + ": install libvirt-daemon";
}

PrivateLibvirtd::PrivateLibvirtd(const QemuGround& ground) : folder_(ground.folder()) {
  ::mkdir((folder_ + "/libvirt").c_str(), 0700);
  // Without it no guest starts: QEMU's output would go to the daemon virtlogd.
  std::ofstream(folder_ + "/libvirt/qemu.conf") << "stdio_handler = \"file\"\n";
  Start();
}

PrivateLibvirtd::~PrivateLibvirtd() { Kill(); }

std::string PrivateLibvirtd::Log() const {
  std::ostringstream log;
  log << std::ifstream(folder_ + "/libvirtd.log").rdbuf();
  return log.str();
}

void PrivateLibvirtd::Start() {
  if (pid_ > 0) return;
  const std::string pid_file = folder_ + "/libvirtd.pid";
  const std::string log = folder_ + "/libvirtd.log";
  pid_ = ::fork();
  if (pid_ < 0) Fail("Cannot fork");
  if (pid_ == 0) {
    const int output = ::open(log.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
    ::dup2(output, 1);
    ::dup2(output, 2);
    ::execl(kProgram, kProgram, "--pid-file", pid_file.c_str(), static_cast<char*>(nullptr));
    ::_exit(127);
  }
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(60);
  while (!IsListening()) {
    if (::waitpid(pid_, nullptr, WNOHANG) != 0) Fail("libvirtd has ended: " + Log());
    if (std::chrono::steady_clock::now() > end) Fail("libvirtd does not listen: " + Log());
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
}

void PrivateLibvirtd::Kill() {
  if (pid_ <= 0) return;
  ::kill(pid_, SIGKILL);
  ::waitpid(pid_, nullptr, 0);
  pid_ = 0;
}

bool PrivateLibvirtd::IsListening() const {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (Socket().size() >= sizeof address.sun_path) Fail("The path of libvirtd's socket is too long");
  std::strcpy(address.sun_path, Socket().c_str());
  const int connection = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const bool listens = ::connect(connection, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
  ::close(connection);
  return listens;
}

}  // namespace vexa::test
