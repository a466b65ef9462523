#include "tests/support/qemu_guest.h"

#include <dirent.h>
#include <fcntl.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/sendfile.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <sstream>
#include <system_error>
#include <vector>

// The process ends while threads of the embedded driver are working, and the leak sanitizer may report what they hold.
// The tests on libvirt's test driver check what callers of libvirt must free.
extern "C" const char* __lsan_default_suppressions();
extern "C" const char* __lsan_default_suppressions() { return "leak:libvirt.so.0\n"; }

namespace vexa::test {
namespace {

namespace fs = std::filesystem;

constexpr uid_t kNobodyUid = 65534;
constexpr std::array<const char*, 2> kImageNames = {"guest.iso", "guest-no-agent.iso"};

[[noreturn]] void Die(const std::string& what) {
  std::fprintf(stderr, "%s: %s\n", what.c_str(), std::strerror(errno));
  std::abort();
}

std::string ImageSource(const char* name) { return std::string(VEXA_TEST_GUEST_FOLDER) + "/" + name; }

// Opened while the process may still read it, and kept open: "nobody" may have no access to the build folder.
int OpenAndKeep(const std::string& path) {
  static std::map<std::string, int> descriptors;
  const auto [entry, is_new] = descriptors.emplace(path, -1);
  if (is_new) entry->second = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (entry->second < 0) Die("Cannot open " + path);
  return entry->second;
}

void Copy(const std::string& from, const std::string& to, mode_t mode) {
  const int source = OpenAndKeep(from);
  struct stat status {};
  const int copy = ::open(to.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, mode);
  if (copy < 0 || ::fstat(source, &status) != 0) Die("Cannot copy " + from);
  off_t offset = 0;
  while (offset < status.st_size) {
    const ssize_t count = ::sendfile(copy, source, &offset, static_cast<std::size_t>(status.st_size - offset));
    if (count <= 0) Die("Cannot copy " + from);
  }
  ::close(copy);
}

void BecomeNobody() {
  if (::geteuid() != 0) return;
  if (::setgroups(0, nullptr) != 0 || ::setresgid(kNobodyUid, kNobodyUid, kNobodyUid) != 0 ||
      ::setresuid(kNobodyUid, kNobodyUid, kNobodyUid) != 0) {
    Die("Cannot become the user 65534");
  }
  // The file was root's: /proc/self is then closed to the remaining user, and sanitizers read it.
  ::prctl(PR_SET_DUMPABLE, 1);
}

// The result of `question` as the user that an environment switches to.
std::string CallAsUserNobody(const std::function<std::string()>& question) {
  std::array<int, 2> pipe{};
  if (::pipe2(pipe.data(), O_CLOEXEC) != 0) Die("Cannot make a pipe");
  const pid_t child = ::fork();
  if (child < 0) Die("Cannot fork");
  if (child == 0) {
    BecomeNobody();
    const std::string answer = question();
    ::_exit(::write(pipe[1], answer.data(), answer.size()) == static_cast<ssize_t>(answer.size()) ? 0 : 1);
  }
  ::close(pipe[1]);
  std::string answer;
  std::array<char, 512> buffer{};
  for (ssize_t count = 0; (count = ::read(pipe[0], buffer.data(), buffer.size())) > 0;) {
    answer.append(buffer.data(), static_cast<std::size_t>(count));
  }
  ::close(pipe[0]);
  int status = 0;
  ::waitpid(child, &status, 0);
  if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) Die("Cannot ask as the user 65534");
  return answer;
}

bool IsInPath(const std::string& program) {
  const char* const path = std::getenv("PATH");
  std::string rest = path != nullptr ? path : "";
  while (!rest.empty()) {
    const std::size_t colon = rest.find(':');
    if (::access((rest.substr(0, colon) + "/" + program).c_str(), X_OK) == 0) return true;
    rest = colon == std::string::npos ? "" : rest.substr(colon + 1);
  }
  return false;
}

// One folder of libraries for each architecture.
bool HasQemuDriver() {
  std::error_code error;
  for (fs::directory_iterator folder("/usr/lib", error), end; !error && folder != end; folder.increment(error)) {
    const fs::path driver = folder->path() / "libvirt/connection-driver/libvirt_driver_qemu.so";
    if (::access(driver.c_str(), R_OK) == 0) return true;
  }
  return false;
}

// Empty when the process has ended, also while this is read.
std::string CommandLine(const std::string& pid) {
  std::ifstream file("/proc/" + pid + "/cmdline", std::ios::binary);
  std::ostringstream line;
  line << file.rdbuf();
  return line.str();
}

std::string ProgramOf(const std::string& line) { return fs::path(line.substr(0, line.find('\0'))).filename().string(); }

bool IsQemu(const std::string& program) { return program.starts_with("qemu-system-"); }
bool IsHostProgram(const std::string& program) { return program == "vexad" || program == "libvirtd"; }

std::vector<pid_t> FindProcessesBelow(const std::string& folder, bool (*is_wanted_program)(const std::string&),
                                      const std::string& word = "") {
  std::vector<pid_t> found;
  DIR* const processes = ::opendir("/proc");
  if (processes == nullptr) return found;
  while (const dirent* const entry = ::readdir(processes)) {
    const std::string pid = entry->d_name;
    const bool number = pid.find_first_not_of("0123456789") == std::string::npos;
    if (!number) continue;
    const std::string line = CommandLine(pid);
    const bool is_wanted = is_wanted_program(ProgramOf(line)) && line.find(folder + "/") != std::string::npos &&
                           line.find(word) != std::string::npos;
    if (is_wanted) found.push_back(static_cast<pid_t>(std::stol(pid)));
  }
  ::closedir(processes);
  return found;
}

// Kills a process, and waits until it has closed its files: its command line disappears earlier. Waits for 30 s at
// most.
void KillAndAwait(pid_t process) {
  const int descriptor = static_cast<int>(::syscall(SYS_pidfd_open, process, 0));
  if (descriptor < 0) return;  // it has ended
  ::kill(process, SIGKILL);
  pollfd end{descriptor, POLLIN, 0};
  if (::poll(&end, 1, 30'000) == 0) std::fprintf(stderr, "Process %d does not end\n", static_cast<int>(process));
  ::close(descriptor);
}

// Kills them, and waits for their ends. Returns how many there were at first.
int KillProcessesBelow(const std::string& folder, bool (*is_wanted_program)(const std::string&)) {
  int count = 0;
  // One that is just starting may appear late.
  for (int round = 0; round < 200; ++round) {
    const std::vector<pid_t> running = FindProcessesBelow(folder, is_wanted_program);
    if (running.empty()) return count;
    if (round == 0) count = static_cast<int>(running.size());
    for (const pid_t process : running) KillAndAwait(process);
  }
  std::fprintf(stderr, "Programs below '%s' are started again and again\n", folder.c_str());
  return count;
}

// The guard of an environment: it outlives the test program and cleans up after it.
[[noreturn]] void Guard(int news, const std::string& folder) {
  char word = 0;
  ssize_t got = 0;
  do {
    got = ::read(news, &word, 1);
  } while (got < 0 && errno == EINTR);
  EndPrograms(folder);
  // Without a message the program was killed or crashed, and nothing else removes the folder.
  if (got == 0) {
    std::error_code ignored;
    fs::remove_all(folder, ignored);
  }
  ::_exit(0);
}

}  // namespace

std::string QemuUnavailableReason() {
  // Once: by a later call the process may have become "nobody", who cannot see what is already open.
  static const std::string why_not = [] {
    for (const char* const image : kImageNames) {
      if (::access(ImageSource(image).c_str(), R_OK) != 0) {
        return "there is no " + ImageSource(image) + ", which tools/make-test-guest makes";
      }
      OpenAndKeep(ImageSource(image));
    }
    return CallAsUserNobody([]() -> std::string {
      if (!IsInPath("qemu-system-x86_64")) return "there is no qemu-system-x86_64: install qemu-system-x86";
      if (!HasQemuDriver()) return "libvirt has no driver of QEMU: install libvirt-daemon-driver-qemu";
      return "";
    });
  }();
  return why_not;
}

std::string FirmwareUnavailableReason() {
  const std::string why_not = QemuUnavailableReason();
  if (!why_not.empty() || ::access(kFirmwareVariables, R_OK) == 0) return why_not;
  return std::string("there is no ") + kFirmwareVariables + ": install ovmf";
}

bool CanUserNobodyRun(const std::string& program) {
  return CallAsUserNobody([&] { return ::access(program.c_str(), X_OK) == 0 ? "yes" : "no"; }) == "yes";
}

std::string SkipNotice(const std::string& why) { return "Guests on QEMU are not tested: " + why; }

int CountQemus(const std::string& folder, const std::string& word) {
  return static_cast<int>(QemusOf(folder, word).size());
}

std::vector<int> QemusOf(const std::string& folder, const std::string& word) {
  return FindProcessesBelow(folder, IsQemu, word);
}

int KillQemus(const std::string& folder) { return KillProcessesBelow(folder, IsQemu); }

void EndPrograms(const std::string& folder) {
  // First the programs that would start another QEMU.
  KillProcessesBelow(folder, IsHostProgram);
  KillProcessesBelow(folder, IsQemu);
}

QemuEnvironment::Dropped::Dropped(const QemuFiles& files) {
  for (const char* const image : kImageNames) OpenAndKeep(ImageSource(image));
  for (const std::string& program : files.programs) OpenAndKeep(program);
  for (const std::string& library : files.libraries) OpenAndKeep(library);
  if (files.user == QemuUser::kNobody) BecomeNobody();
}

QemuEnvironment::QemuEnvironment(const QemuFiles& files) : files_(files), dropped_(files_) {
  // libvirt stores a few files outside of its root: "nobody" has no home, and a test must not touch those of others.
  for (const char* const name : {"HOME", "XDG_RUNTIME_DIR", "XDG_CONFIG_HOME", "XDG_CACHE_HOME"}) {
    ::setenv(name, folder().c_str(), 1);
  }
  // It would try for many seconds to start daemons that are not installed.
  ::setenv("LIBVIRT_AUTOSTART", "0", 1);
  CopyImages();
  CopyLibraries();
  StartGuard();
}

QemuEnvironment::~QemuEnvironment() {
  EndPrograms(folder());
  // Folders are kept for people who search for a bug, which is not in the images.
  for (const char* const name : kImageNames) ::unlink(folder_.File(name).c_str());
  std::error_code ignored;
  fs::remove_all(LibraryFolder(), ignored);
  if (guard_ >= 0 && ::write(guard_, "k", 1) != 1) std::fprintf(stderr, "The guard of the environment is gone\n");
  ReleaseInChild();
}

void QemuEnvironment::ReleaseInChild() {
  if (guard_ >= 0) ::close(guard_);
  guard_ = -1;
}

std::string QemuEnvironment::Image(GuestImage image) const {
  return folder_.File(kImageNames[image == GuestImage::kWithAgent ? 0 : 1]);
}

void QemuEnvironment::CopyImages() const {
  for (const char* const name : kImageNames) Copy(ImageSource(name), folder_.File(name), 0600);
}

void QemuEnvironment::CopyLibraries() const {
  if (files_.libraries.empty()) return;
  if (::mkdir(LibraryFolder().c_str(), 0700) != 0) Die("Cannot make the folder of libraries");
  for (const std::string& library : files_.libraries) {
    Copy(library, LibraryFolder() + "/" + fs::path(library).filename().string(), 0700);
  }
}

std::string QemuEnvironment::Program(const std::string& name) const {
  for (const std::string& program : files_.programs) {
    if (fs::path(program).filename() == name) return "/proc/self/fd/" + std::to_string(OpenAndKeep(program));
  }
  std::fprintf(stderr, "The test environment does not know the program '%s'\n", name.c_str());
  std::abort();
}

void QemuEnvironment::StartGuard() {
  std::array<int, 2> pipe{};
  if (::pipe2(pipe.data(), O_CLOEXEC) != 0) Die("Cannot make a pipe");
  const pid_t child = ::fork();
  if (child < 0) Die("Cannot fork");
  if (child == 0) {
    // A grandchild in a group of its own: what ends the test program and its children does not end the guard.
    ::setsid();
    if (::fork() != 0) ::_exit(0);
    ::close(pipe[1]);
    const int null = ::open("/dev/null", O_RDWR);
    for (int fd = 0; fd < 3; ++fd) ::dup2(null, fd);
    Guard(pipe[0], folder());
  }
  ::close(pipe[0]);
  ::waitpid(child, nullptr, 0);
  guard_ = pipe[1];
}

domain_xml::GuestRecords QemuGuestRecords(const std::string& id, const std::string& name, const std::string& image,
                                          BootMedium from) {
  domain_xml::GuestRecords records;
  records.id = id;
  records.guest["name"] = name;
  records.guest["vram_size"] = 192;
  records.guest["vcpu_num"] = 1;
  Json::Value nic;
  nic["mac_address"] = "52:54:00:00:00:" + id.substr(id.size() - 2);
  nic["network_name"] = "";
  records.nics.emplace_back("nic-" + id, nic);
  if (from == BootMedium::kIso) {
    records.guest["iso_images"].append(image);
    records.guest["boot_from"] = "iso";
    return records;
  }
  Json::Value disk;
  disk["path"] = image;
  disk["driver"] = "raw";
  disk["vdisk_mode"] = 1;
  records.disks.emplace_back("disk-" + id, disk);
  return records;
}

}  // namespace vexa::test
