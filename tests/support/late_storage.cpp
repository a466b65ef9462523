#include "tests/support/late_storage.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>

namespace vexa::test {
namespace {

constexpr uid_t kNobodyUid = 65534;

std::string Refusal(const char* what) { return std::string(what) + ": " + std::strerror(errno); }

// Obtains the right to mount: that of root, or of root in a user namespace in which the user keeps their identity.
std::string EnterNamespaces() {
  const uid_t user = ::geteuid();
  const gid_t group = ::getegid();
  if (::unshare(user == 0 ? CLONE_NEWNS : CLONE_NEWUSER | CLONE_NEWNS) != 0) {
    return Refusal("storage cannot be mounted: the kernel gives no namespace");
  }
  if (user != 0) {
    std::ofstream("/proc/self/setgroups") << "deny";
    std::ofstream("/proc/self/uid_map") << user << " " << user << " 1\n";
    std::ofstream("/proc/self/gid_map") << group << " " << group << " 1\n";
  }
  if (::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0)
    return Refusal("mounts cannot be made private");
  return "";
}

// The storage is an in-memory file system that is mounted permanently at `keep`, and also shown at other places.
[[noreturn]] void ServeMountRequests(int orders, int answers, const std::string& keep) {
  std::array<char, 4096> order{};
  for (;;) {
    const ssize_t size = ::read(orders, order.data(), order.size() - 1);
    if (size <= 0) break;
    order[static_cast<std::size_t>(size)] = '\0';
    const char* const folder = order.data() + 1;
    const int result = order[0] == 'm' ? ::mount(keep.c_str(), folder, nullptr, MS_BIND, nullptr) : ::umount(folder);
    const char answer = result == 0 ? 'y' : 'n';
    if (::write(answers, &answer, 1) != 1) break;
  }
  ::umount2(keep.c_str(), MNT_DETACH);
  ::rmdir(keep.c_str());
  ::_exit(0);
}

RemovableStorage& Instance() {
  static RemovableStorage storage;
  return storage;
}

}  // namespace

RemovableStorage& RemovableStorage::Get() { return Instance(); }

std::string RemovableStorage::Enter() {
  static const std::string why_not = []() -> std::string {
    std::string refused = EnterNamespaces();
    if (!refused.empty()) return refused;
    std::string keep = "/tmp/vexa-late-XXXXXX";
    if (::mkdtemp(keep.data()) == nullptr) return Refusal("a folder cannot be made");
    if (::mount("vexa-late", keep.c_str(), "tmpfs", MS_NOSUID | MS_NODEV, "mode=0700,size=128m") != 0) {
      return Refusal("storage cannot be mounted");
    }
    if (::geteuid() == 0 && ::chown(keep.c_str(), kNobodyUid, kNobodyUid) != 0) return Refusal("chown");
    std::array<int, 2> orders{};
    std::array<int, 2> answers{};
    if (::pipe2(orders.data(), O_CLOEXEC | O_DIRECT) != 0 || ::pipe2(answers.data(), O_CLOEXEC) != 0) {
      return Refusal("a pipe cannot be made");
    }
    const pid_t child = ::fork();
    if (child < 0) return Refusal("a process cannot be made");
    if (child == 0) {
      ::setsid();
      ::close(orders[1]);
      ::close(answers[0]);
      ServeMountRequests(orders[0], answers[1], keep);
    }
    ::close(orders[0]);
    ::close(answers[1]);
    Instance().orders_ = orders[1];
    Instance().answers_ = answers[0];
    return "";
  }();
  return why_not;
}

bool RemovableStorage::Mount(const std::string& folder) { return Order('m', folder); }
bool RemovableStorage::Unmount(const std::string& folder) { return Order('u', folder); }

bool RemovableStorage::Order(char what, const std::string& folder) const {
  const std::string order = what + folder;
  if (::write(orders_, order.data(), order.size()) != static_cast<ssize_t>(order.size())) return false;
  char answer = 'n';
  return ::read(answers_, &answer, 1) == 1 && answer == 'y';
}

}  // namespace vexa::test
