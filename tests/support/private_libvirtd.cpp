#include "tests/support/private_libvirtd.h"

#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <fstream>
#include <sstream>
#include <thread>

#include "tests/support/check.h"
#include "tests/support/logged_program.h"

namespace vexa::test {
namespace {

constexpr char kProgram[] = "/usr/sbin/libvirtd";

}  // namespace

std::string LibvirtdUnavailableReason() {
  std::string why_not = QemuUnavailableReason();
  if (!why_not.empty()) return why_not;
  static const bool can_run = CanUserNobodyRun(kProgram);
  return can_run ? "" : std::string("there is no ") + kProgram + ": install libvirt-daemon";
}

PrivateLibvirtd::PrivateLibvirtd(const QemuEnvironment& environment) : folder_(environment.folder()) {
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
  pid_ = StartLogged(kProgram, {kProgram, "--pid-file", folder_ + "/libvirtd.pid"}, folder_ + "/libvirtd.log");
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
