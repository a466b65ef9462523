#include "host/hypervisor/qemu_process.h"

#include <dirent.h>
#include <signal.h>

#include <charconv>
#include <fstream>
#include <memory>
#include <sstream>
#include <string_view>

namespace vexa::hypervisor {
namespace {

// The arguments, each followed by a NUL. Empty when the process has ended.
std::string CommandLine(std::string_view pid) {
  std::ifstream file("/proc/" + std::string(pid) + "/cmdline", std::ios::binary);
  std::ostringstream line;
  line << file.rdbuf();
  return line.str();
}

bool IsQemuOf(const std::string& line, const std::string& id, const std::string& root) {
  const std::string_view program = std::string_view(line).substr(0, line.find('\0'));
  const std::string_view name = program.substr(program.rfind('/') + 1);
  if (!name.starts_with("qemu-") && !name.starts_with("kvm")) return false;
  const std::string uuid = std::string("\0-uuid\0", 7) + id + '\0';
  return line.find(uuid) != std::string::npos && (root.empty() || line.find(root + "/") != std::string::npos);
}

}  // namespace

int KillQemuProcesses(const std::string& id, const std::string& root) {
  const std::unique_ptr<DIR, int (*)(DIR*)> processes(::opendir("/proc"), ::closedir);
  if (!processes) return 0;
  int count = 0;
  // NOLINTNEXTLINE(concurrency-mt-unsafe): threads may read different directories, see readdir(3).
  while (const dirent* const entry = ::readdir(processes.get())) {
    const std::string_view name = entry->d_name;
    pid_t pid = 0;
    const auto [end, error] = std::from_chars(name.data(), name.data() + name.size(), pid);
    if (error != std::errc() || end != name.data() + name.size()) continue;
    if (IsQemuOf(CommandLine(name), id, root) && ::kill(pid, SIGKILL) == 0) ++count;
  }
  return count;
}

}  // namespace vexa::hypervisor
