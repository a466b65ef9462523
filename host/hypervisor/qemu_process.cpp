#include "host/hypervisor/qemu_process.h"

#include <dirent.h>
#include <fmt/format.h>
#include <limits.h>
#include <pwd.h>
#include <sched.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <fstream>
#include <functional>
#include <iterator>
#include <memory>
#include <optional>
#include <pugixml.hpp>
#include <sstream>
#include <string_view>
#include <utility>
#include <variant>

namespace vexa::hypervisor {
namespace {

// A file of the process below /proc. Empty when the process has ended.
std::string ProcText(std::string_view pid, std::string_view name) {
  std::ifstream file(fmt::format("/proc/{}/{}", pid, name), std::ios::binary);
  std::ostringstream text;
  text << file.rdbuf();
  return text.str();
}

// The program that the process runs; where it cannot be read, what the process calls itself.
std::string ProgramOf(std::string_view pid, const std::string& line) {
  std::array<char, PATH_MAX> path{};
  const ssize_t length = ::readlink(fmt::format("/proc/{}/exe", pid).c_str(), path.data(), path.size());
  return length < 0 ? line.substr(0, line.find('\0')) : std::string(path.data(), static_cast<std::size_t>(length));
}

bool IsQemuOf(std::string_view pid, const std::string& id, const std::string& root) {
  // The arguments, each followed by a NUL.
  const std::string line = ProcText(pid, "cmdline");
  const std::string program = ProgramOf(pid, line);
  const std::string_view name = std::string_view(program).substr(program.rfind('/') + 1);
  if (!name.starts_with("qemu-") && !name.starts_with("kvm")) return false;
  const std::string uuid = std::string("\0-uuid\0", 7) + id + '\0';
  return line.find(uuid) != std::string::npos && (root.empty() || line.find(root + "/") != std::string::npos);
}

// Calls `use` with the name of each entry of a folder. Returns 0 or an errno(3) value.
int ForEachEntry(const std::string& folder, const std::function<void(std::string_view name)>& use) {
  const std::unique_ptr<DIR, int (*)(DIR*)> entries(::opendir(folder.c_str()), ::closedir);
  if (!entries) return errno;
  // NOLINTNEXTLINE(concurrency-mt-unsafe): threads may read different directories, see readdir(3).
  while (const dirent* const entry = ::readdir(entries.get())) use(entry->d_name);
  return 0;
}

std::vector<pid_t> QemuProcessesOf(const std::string& id, const std::string& root) {
  std::vector<pid_t> found;
  (void)ForEachEntry("/proc", [&](std::string_view name) {
    pid_t pid = 0;
    const auto [end, error] = std::from_chars(name.data(), name.data() + name.size(), pid);
    if (error != std::errc() || end != name.data() + name.size()) return;
    if (IsQemuOf(name, id, root)) found.push_back(pid);
  });
  return found;
}

// Not the owner of the folder in /proc, which is root for a process that must not be examined.
bool BelongsTo(pid_t pid, uid_t owner) {
  const std::string status = ProcText(std::to_string(pid), "status");
  constexpr std::string_view kUid = "\nUid:\t";
  const std::size_t at = status.find(kUid);
  if (at == std::string::npos) return false;
  const char* const begin = status.data() + at + kUid.size();
  uid_t real = 0;
  return std::from_chars(begin, status.data() + status.size(), real).ec == std::errc() && real == owner;
}

// The file behind a descriptor, from its link below /proc/PID/fd; or an errno(3) value.
std::variant<HeldFile, int> FileBehind(const std::string& link) {
  struct stat info {};
  if (::stat(link.c_str(), &info) != 0) return errno;
  std::array<char, PATH_MAX> path{};
  const ssize_t length = ::readlink(link.c_str(), path.data(), path.size());
  if (length < 0) return errno;
  return HeldFile{std::string(path.data(), static_cast<std::size_t>(length)),
                  info.st_mode,
                  info.st_dev,
                  info.st_ino,
                  info.st_rdev,
                  static_cast<std::uint64_t>(info.st_size)};
}

// Standard input, output and error: not files of the guest, but its log.
bool IsStandardStream(std::string_view name) { return name == "0" || name == "1" || name == "2"; }

// QEMU names its threads: "CPU 0/KVM", "ALL CPUs/TCG".
bool IsVirtualCpu(std::string_view thread_name) {
  return thread_name.starts_with("CPU ") || thread_name.starts_with("ALL CPUs");
}

}  // namespace

uid_t OwnerOfQemu(const char* running_xml) {
  pugi::xml_document document;
  (void)document.load_string(running_xml);
  const pugi::xml_node label = document.document_element().find_child_by_attribute("seclabel", "model", "dac");
  const std::string_view owner = label.child("label").child_value();  // "+64055:+64055", or names: "libvirt-qemu:kvm"
  const std::string user(owner.substr(0, owner.find(':')));
  if (user.empty()) return ::geteuid();
  const char* const end = user.data() + user.size();
  uid_t id = 0;
  const auto [parsed, error] = std::from_chars(user.data() + (user.starts_with('+') ? 1 : 0), end, id);
  if (error == std::errc() && parsed == end) return id;
  std::array<char, 16 << 10> buffer{};
  passwd entry{};
  passwd* found = nullptr;
  (void)::getpwnam_r(user.c_str(), &entry, buffer.data(), buffer.size(), &found);
  return found != nullptr ? found->pw_uid : ::geteuid();
}

int KillQemuProcesses(const std::string& id, const std::string& root) {
  const std::vector<pid_t> processes = QemuProcessesOf(id, root);
  return static_cast<int>(std::ranges::count_if(processes, [](pid_t pid) { return ::kill(pid, SIGKILL) == 0; }));
}

void MoveHelperThreads(const std::string& id, const std::string& root, uid_t owner, const domain_xml::CpuSet& cpus) {
  if (cpus.empty() || *cpus.rbegin() >= CPU_SETSIZE) return;
  cpu_set_t wanted;
  CPU_ZERO(&wanted);
  for (const unsigned cpu : cpus) CPU_SET(cpu, &wanted);
  for (const pid_t pid : QemuProcessesOf(id, root)) {
    if (!BelongsTo(pid, owner)) continue;
    const auto move = [&](std::string_view thread) {
      pid_t tid = 0;
      if (std::from_chars(thread.data(), thread.data() + thread.size(), tid).ec != std::errc()) return;
      if (IsVirtualCpu(ProcText(fmt::format("{}/task", pid), fmt::format("{}/comm", thread)))) return;
      (void)::sched_setaffinity(tid, sizeof(wanted), &wanted);
    };
    // Twice: a thread inherits the processors of the one that makes it, which may not have been moved yet.
    for (int i = 0; i < 2; ++i) (void)ForEachEntry(fmt::format("/proc/{}/task", pid), move);
  }
}

Result<std::vector<HeldFile>> FilesOfProcess(const std::string& pid) {
  const std::string folder = fmt::format("/proc/{}/fd/", pid);
  std::vector<HeldFile> files;
  std::vector<HeldFile> streams;
  int denied = 0;
  int error_number = ForEachEntry(folder, [&](std::string_view name) {
    if (name.starts_with('.')) return;
    auto file = FileBehind(folder + std::string(name));
    if (auto* found = std::get_if<HeldFile>(&file)) {
      (IsStandardStream(name) ? streams : files).push_back(std::move(*found));
    } else if (std::get<int>(file) == EACCES || std::get<int>(file) == EPERM) {
      denied = std::get<int>(file);  // other errors: the descriptor was closed meanwhile
    }
  });
  if (error_number == 0) error_number = denied;
  const std::string failed = fmt::format("Cannot read which files the process {} has open", pid);
  if (error_number == ENOENT || error_number == ESRCH) return SystemError(ErrorCode::kNotFound, failed, error_number);
  if (error_number != 0) return SystemError(ErrorCode::kDenied, failed, error_number);
  std::erase_if(files, [&](const HeldFile& file) {
    return std::ranges::any_of(
        streams, [&](const HeldFile& stream) { return stream.device == file.device && stream.inode == file.inode; });
  });
  return files;
}

Result<std::vector<std::vector<HeldFile>>> FilesOfQemuProcesses(const std::string& id, const std::string& root,
                                                                uid_t owner) {
  std::vector<std::vector<HeldFile>> processes;
  for (const pid_t pid : QemuProcessesOf(id, root)) {
    if (!BelongsTo(pid, owner)) continue;
    auto files = FilesOfProcess(std::to_string(pid));
    if (!files && files.error().code() == ErrorCode::kDenied) return files.error();
    if (files) processes.push_back(std::move(*files));
  }
  if (!processes.empty()) return processes;
  return Error(ErrorCode::kNotFound, fmt::format("No QEMU process of the guest {} was found", id));
}

}  // namespace vexa::hypervisor
