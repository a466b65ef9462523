#include "host/hypervisor/driver_uri.h"

#include <fmt/format.h>
#include <pwd.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/sysinfo.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <fstream>
#include <sstream>

#include "host/base/files.h"
#include "host/base/mutex.h"
#include "host/base/result.h"

namespace vexa::hypervisor {
namespace {

// The number of processors in a list: 4 for "0-1,4-5"; 0 when it is malformed.
unsigned CountCpus(const std::string& list) {
  std::istringstream ranges(list);
  std::string range;
  unsigned count = 0;
  while (std::getline(ranges, range, ',')) {
    unsigned first = 0;
    unsigned last = 0;
    char dash = 0;
    std::istringstream numbers(range);
    if (!(numbers >> first)) return 0;
    if (!(numbers >> dash >> last)) last = first;
    if (last < first) return 0;
    count += last - first + 1;
  }
  return count;
}

unsigned ThreadsPerCore(unsigned cpus) {
  std::ifstream file("/sys/devices/system/cpu/cpu0/topology/thread_siblings_list");
  std::string list;
  std::getline(file, list);
  const unsigned count = CountCpus(list);
  return count == 0 || cpus % count != 0 ? 1 : count;
}

bool IsUnreserved(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' || c == '.' ||
         c == '_' || c == '~' || c == '/';
}

std::string PercentEncode(const std::string& text) {
  constexpr std::string_view kDigits = "0123456789ABCDEF";
  std::string result;
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    if (IsUnreserved(c)) {
      result += c;
    } else {
      result += {'%', kDigits[byte >> 4], kDigits[byte & 0x0F]};
    }
  }
  return result;
}

bool HasUser(const char* name) {
  std::array<char, 16384> buffer{};
  passwd entry{};
  passwd* found = nullptr;
  return getpwnam_r(name, &entry, buffer.data(), buffer.size(), &found) == 0 && found != nullptr;
}

Failure SystemFailure(std::string message, int error_number) {
  const Error error = SystemError(ErrorCode::kInternal, std::move(message), error_number);
  return Failure(FailureKind::kFailed, error.message(), error.cause());
}

// Whether the process has used no other root: the driver keeps its first one until the process ends.
bool IsOnlyRoot(const std::string& root) {
  static Mutex mutex;
  static std::string first VEXA_GUARDED_BY(mutex);
  const MutexLock lock(mutex);
  if (first.empty()) first = root;
  return first == root;
}

// By default the driver has a libvirt daemon keep QEMU's output, and does not start without that daemon.
Result<void, Failure> WriteConfiguration(const std::string& root) {
  const std::string folder = root + "/etc";
  const std::string file = folder + "/qemu.conf";
  if (access(file.c_str(), F_OK) == 0) return {};
  if (mkdir(folder.c_str(), 0700) != 0 && errno != EEXIST) {
    return SystemFailure(fmt::format("Cannot make the folder '{}'", folder), errno);
  }
  if (Status written = WriteFileAtomically(file, "stdio_handler = \"file\"\n", 0600); !written) {
    return Failure(FailureKind::kFailed, "Cannot write the configuration of embedded guests",
                   written.error().ToString());
  }
  return {};
}

Result<DriverTarget, Failure> EmbedTarget(const std::string& root) {
  if (root.empty() || root[0] != '/' || root.find('\0') != std::string::npos) {
    return Failure(FailureKind::kInvalid,
                   fmt::format("The folder of embedded guests is '{}'. Use an absolute path", root));
  }
  if (geteuid() == 0 && !HasUser("libvirt-qemu")) {
    return Failure(FailureKind::kDenied,
                   "Guests cannot be embedded as root without a user 'libvirt-qemu'. Run as another user");
  }
  if (mkdir(root.c_str(), 0700) != 0 && errno != EEXIST) {
    return SystemFailure(fmt::format("Cannot make the folder of embedded guests '{}'", root), errno);
  }
  if (!IsOnlyRoot(root)) {
    return Failure(FailureKind::kInvalid,
                   "This process already embeds guests below another folder, and can have only one");
  }
  if (Result<void, Failure> configured = WriteConfiguration(root); !configured) return configured.error();
  return DriverTarget{DriverKind::kEmbed, "qemu:///embed?root=" + PercentEncode(root), nullptr, root};
}

// test:///default comes with a guest, and all users of a process share it. With a file, each connection has an empty
// node to itself.
Result<DriverTarget, Failure> TestTarget() {
  constexpr const char* kFailed = "Cannot write the test driver's configuration";
  const int fd = memfd_create("vexa-test-node", MFD_CLOEXEC);
  if (fd < 0) return SystemFailure(kFailed, errno);
  std::shared_ptr<const int> file(new int(fd), [](const int* owned) {
    close(*owned);
    delete owned;
  });
  const std::string xml = TestNodeXml();
  const ssize_t written = write(fd, xml.data(), xml.size());
  if (written != static_cast<ssize_t>(xml.size())) return SystemFailure(kFailed, written < 0 ? errno : ENOSPC);
  return DriverTarget{DriverKind::kTest, "test:///proc/self/fd/" + std::to_string(fd), std::move(file), ""};
}

}  // namespace

std::string TestNodeXml() {
  const unsigned cpus = static_cast<unsigned>(std::max(1, get_nprocs()));
  const unsigned threads = ThreadsPerCore(cpus);
  struct sysinfo memory {};
  sysinfo(&memory);
  const std::uint64_t kib = std::uint64_t{memory.totalram} * memory.mem_unit / 1024;
  std::ostringstream xml;
  // The driver invents addresses in the networks that it knows.
  xml << "<node><cpu><mhz>1000</mhz><model>x86_64</model><active>" << cpus
      << "</active><nodes>1</nodes><sockets>1</sockets><cores>" << cpus / threads << "</cores><threads>" << threads
      << "</threads></cpu><memory>" << kib
      << "</memory><network><name>default</name><bridge name='virbr0'/><ip address='192.168.122.1' "
         "netmask='255.255.255.0'><dhcp><range start='192.168.122.2' end='192.168.122.254'/></dhcp></ip></network>"
         "</node>";
  return xml.str();
}

bool IsEmbedded(const std::string& uri) { return uri.find(":///embed?") != std::string::npos; }

Result<DriverTarget, Failure> ResolveDriver(const HypervisorOptions& options) {
  if (options.mode.empty()) {
    return Failure(FailureKind::kInvalid, "The hypervisor is missing. Use 'test', 'embed' or a libvirt URI");
  }
  if (options.mode == "test") return TestTarget();
  if (options.mode == "embed") return EmbedTarget(options.root);
  const auto is_plain = [](char c) { return c > 0x20 && c < 0x7F; };
  if (options.mode.find(':') == std::string::npos || !std::all_of(options.mode.begin(), options.mode.end(), is_plain)) {
    return Failure(FailureKind::kInvalid, "The hypervisor is neither 'test' nor 'embed' nor a libvirt URI");
  }
  return DriverTarget{DriverKind::kUri, options.mode, nullptr, ""};
}

}  // namespace vexa::hypervisor
