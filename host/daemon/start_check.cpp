#include "host/daemon/start_check.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <netinet/in.h>
#include <pwd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <system_error>
#include <utility>

#include "host/base/account_name.h"
#include "host/base/data_folder.h"
#include "host/base/data_lock.h"
#include "host/base/descriptor.h"
#include "host/base/files.h"
#include "host/base/private_file.h"
#include "host/daemon/certificate_signing.h"
#include "host/daemon/listening_process.h"
#include "host/http/http_tls.h"
#include "host/hypervisor/libvirt_probe.h"
#include "host/transport/tls_material.h"

namespace vexa::daemon {
namespace {

namespace fs = std::filesystem;

constexpr const char* kServiceAccount = "vexa";
constexpr const char* kServiceDataFolder = "/var/lib/vexa";
constexpr const char* kServiceSocketFolder = "/run/vexad";
constexpr std::size_t kMaxPemBytes = 1024 * 1024;

std::string OwnAccount() { return NameOfAccount(::geteuid()); }

std::string SystemText(int error_number) { return std::generic_category().message(error_number); }

class StartCheck {
 public:
  StartCheck(const Config& config, const StartCheckOptions& options) : config_(config), options_(options) {}

  ConfigProblems Run() {
    // The start releases the lock when it fails, so only a daemon that serves has it.
    is_daemon_running_ = HasRunningDaemon();
    CheckFolders();
    CheckTls();
    for (const std::string& text : config_.listen) CheckTcp("listen", text);
    if (!config_.cluster_listen.empty()) CheckTcp("cluster-listen", config_.cluster_listen);
    CheckSocket();
    CheckPasswordService();
    CheckHypervisor();
    return std::move(problems_);
  }

 private:
  // The lock is released again: the checks take time, and a daemon may start meanwhile.
  bool HasRunningDaemon() const {
    const Result<DataLock> lock = DataLock::Share(config_.data_directory);
    return !lock && lock.error().code() == ErrorCode::kBusy;
  }

  void Add(const std::string& setting, const std::string& value, std::string problem, std::string help) {
    problems_.push_back({setting, value, std::move(problem), std::move(help)});
  }

  // A folder that the daemon makes when it is missing.
  void CheckFolder(const char* setting, const std::string& folder) {
    struct stat info {};
    if (::stat(folder.c_str(), &info) != 0) {
      if (errno == ENOENT) return CheckCanBeMade(setting, folder);
      const std::string why = SystemText(errno);
      return Add(setting, folder, fmt::format("The folder cannot be used: {}", why),
                 fmt::format("Let '{}' enter the folders above it", OwnAccount()));
    }
    if (!S_ISDIR(info.st_mode)) return Add(setting, folder, "It is not a folder", "Move the file away");
    if (::faccessat(AT_FDCWD, folder.c_str(), R_OK | W_OK | X_OK, AT_EACCESS) == 0) return;
    const std::string why = SystemText(errno);
    Add(setting, folder,
        fmt::format("The folder belongs to '{}' and has mode {:04o}, so '{}' cannot use it ({})",
                    NameOfAccount(info.st_uid), info.st_mode & 07777U, OwnAccount(), why),
        fmt::format("Run: chown {}: '{}'", OwnAccount(), folder));
  }

  void CheckCanBeMade(const char* setting, const std::string& folder) {
    std::error_code failed;
    fs::path parent = fs::absolute(folder, failed).lexically_normal();
    if (!parent.has_filename()) parent = parent.parent_path();
    for (parent = parent.parent_path(); !fs::exists(parent, failed) && parent.has_relative_path();) {
      parent = parent.parent_path();
    }
    if (::faccessat(AT_FDCWD, parent.c_str(), W_OK | X_OK, AT_EACCESS) == 0 && fs::is_directory(parent, failed)) return;
    Add(setting, folder, fmt::format("The folder does not exist, and '{}' cannot make it", OwnAccount()),
        fmt::format("Run: install -d -m 0700 -o {} '{}'", OwnAccount(), folder));
  }

  void CheckFolders() {
    const std::string& data = config_.data_directory;
    if (!data.empty() && !IsMadeByService(data)) CheckFolder("data", data);
    if (const Status safe = CheckDataFolder(data); !safe) {
      Add("data", data, "The folder can be changed by other users", fmt::format("Run: chmod go-w '{}'", data));
    }
    CheckOwners("data", data);
    const std::string store = config_.store_directory.empty() ? data + "/store" : config_.store_directory;
    if (store != data + "/store") {
      CheckFolder("store", store);
      CheckOwners("store", store);
    }
    if (config_.hypervisor == "none") return;
    for (const std::string& root : config_.image_roots) {
      if (!root.starts_with(data + "/") || ::access(root.c_str(), F_OK) == 0) CheckFolder("image-roots", root);
    }
    if (config_.hypervisor == "embed" && !config_.hypervisor_root.starts_with(data + "/")) {
      CheckFolder("hypervisor-root", config_.hypervisor_root);
    }
  }

  // Files that another account has made, such as root with a command. Deeper folders are guests' disks.
  void CheckOwners(const char* setting, const std::string& folder) {
    std::string first;
    std::size_t count = 0;
    for (const std::string& place : {folder, folder + "/store"}) {
      std::error_code failed;
      fs::directory_iterator entry(place, failed);
      for (const fs::directory_iterator end; !failed && entry != end; entry.increment(failed)) {
        const std::string path = entry->path();
        struct stat info {};
        if (::lstat(path.c_str(), &info) != 0 || !S_ISREG(info.st_mode) || info.st_uid == ::geteuid()) continue;
        if (::faccessat(AT_FDCWD, path.c_str(), R_OK | W_OK, AT_EACCESS) == 0) continue;
        if (count++ == 0) first = fmt::format("'{}' belongs to '{}'", path, NameOfAccount(info.st_uid));
      }
    }
    if (count == 0) return;
    Add(setting, folder,
        count == 1
            ? fmt::format("{}, and '{}' cannot use it", first, OwnAccount())
            : fmt::format("{}, and '{}' cannot use it; {} more files are like it", first, OwnAccount(), count - 1),
        fmt::format("Run: chown -R {}: '{}'", OwnAccount(), folder));
  }

  bool IsMadeByService(const std::string& folder) const {
    if (!options_.has_service_folders) return false;
    return (folder == kServiceDataFolder || folder == kServiceSocketFolder) && ::access(folder.c_str(), F_OK) != 0;
  }

  // Returns whether the file can be read.
  bool CheckCertificate(const char* setting, const std::string& file) {
    const Result<std::string> read = ReadFile(file, kMaxPemBytes);
    if (read) return true;
    Add(setting, file, read.error().ToString(),
        fmt::format("Name a certificate file (PEM) that '{}' may read", OwnAccount()));
    return false;
  }

  bool CheckKey(const char* setting, const std::string& file) {
    const Result<PrivateFile> read = ReadPrivateFile(file, kMaxPemBytes);
    if (read) return true;
    const bool is_missing = read.error().code() == ErrorCode::kNotFound;
    Add(setting, file, read.error().ToString(),
        is_missing ? "Name the private key (PEM) of the certificate"
                   : fmt::format("Run: chown {0}: '{1}' && chmod 0600 '{1}'", OwnAccount(), file));
    return false;
  }

  void CheckTls() {
    if (!config_.tls_certificate.empty() && !config_.tls_key.empty()) {
      const bool has_certificate = CheckCertificate("tls-certificate", config_.tls_certificate);
      if (CheckKey("tls-key", config_.tls_key) && has_certificate) {
        http::ListenerOptions listener;
        listener.certificate_file = config_.tls_certificate;
        listener.key_file = config_.tls_key;
        if (const auto made = http::MakeTlsContext(listener); !made) {
          Add("tls-key", config_.tls_key, made.error().ToString(),
              fmt::format("Name the key that belongs to the certificate '{}'", config_.tls_certificate));
        }
      }
    }
    if (!config_.cluster_listen.empty()) CheckClusterTls();
  }

  void CheckClusterTls() {
    const ClusterFiles files = ClusterFilesOf(config_);
    const bool has_own = !config_.cluster_certificate.empty();
    const char* const authority = config_.cluster_authority.empty() ? "client-authority" : "cluster-authority";
    bool has_all = !files.certificate.empty() && !files.key.empty() && !files.authority.empty();
    if (has_own && !files.certificate.empty()) has_all &= CheckCertificate("cluster-certificate", files.certificate);
    if (has_own && !files.key.empty()) has_all &= CheckKey("cluster-key", files.key);
    if (!files.authority.empty()) has_all &= CheckCertificate(authority, files.authority);
    if (!has_all) return;
    if (const auto loaded = transport::LoadTlsMaterial({files.certificate, files.key, files.authority}); !loaded) {
      Add(has_own ? "cluster-certificate" : "tls-certificate", files.certificate, loaded.error().ToString(),
          "Name the three files that 'vexa cluster certificate' has made together");
      return;
    }
    if (config_.authority_key.empty() || !CheckKey("authority-key", config_.authority_key)) return;
    if (const Status usable = CheckAuthorityFiles({files.authority, config_.authority_key}); !usable) {
      Add("authority-key", config_.authority_key, usable.error().ToString(),
          fmt::format("Name the private key of the authority '{}'", files.authority));
    }
  }

  // Whether the process is the daemon of this data folder, which gives its addresses to its successor.
  bool IsRunningDaemon(const ListeningProcess& process) const {
    if (!is_daemon_running_) return false;
    // The daemon's own account may not see the open files of its processes either, for example in a container.
    return process.pid == 0 ? process.user == ::geteuid()
                            : HasOpen(process.pid, config_.data_directory + "/vexad.lock");
  }

  void CheckTcp(const char* setting, const std::string& text) {
    const std::size_t colon = text.rfind(':');
    if (colon == std::string::npos) return;  // CheckConfig has refused it
    std::string host = text.substr(0, colon);
    if (host.starts_with('[') && host.ends_with(']')) host = host.substr(1, host.size() - 2);
    const auto port = static_cast<std::uint16_t>(std::strtoul(text.c_str() + colon + 1, nullptr, 10));
    if (port == 0) return;
    const int error_number = TryBind(host, port);
    if (error_number == 0) return;
    if (error_number == EADDRINUSE) {
      const ListeningProcess process = FindTcpListener(port).value_or(ListeningProcess());
      if (IsRunningDaemon(process)) return;
      return Add(setting, text, fmt::format("Port {} is in use by {}", port, process.Text()),
                 "Stop it, or choose another port");
    }
    if (error_number == EADDRNOTAVAIL) {
      return Add(setting, text, fmt::format("This machine does not have the address {}", host),
                 "'ip address' shows its addresses; 0.0.0.0 and [::] stand for all of them");
    }
    if (error_number == EACCES) {
      return Add(setting, text, fmt::format("'{}' may not listen on port {}", OwnAccount(), port),
                 "Choose a port above 1023");
    }
    if (error_number == EINVAL) return;  // not an address: CheckConfig has refused it
    Add(setting, text, fmt::format("It cannot be used: {}", SystemText(error_number)), "Choose another address");
  }

  // Binds for a moment without listening: no client can notice it. Returns an error number.
  static int TryBind(const std::string& host, std::uint16_t port) {
    sockaddr_in v4{};
    sockaddr_in6 v6{};
    const sockaddr* address = reinterpret_cast<const sockaddr*>(&v4);
    socklen_t size = sizeof v4;
    if (::inet_pton(AF_INET, host.c_str(), &v4.sin_addr) == 1) {
      v4.sin_family = AF_INET;
      v4.sin_port = htons(port);
    } else if (::inet_pton(AF_INET6, host.c_str(), &v6.sin6_addr) == 1) {
      v6.sin6_family = AF_INET6;
      v6.sin6_port = htons(port);
      address = reinterpret_cast<const sockaddr*>(&v6);
      size = sizeof v6;
    } else {
      return EINVAL;
    }
    const Descriptor fd(::socket(address->sa_family, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (fd.get() < 0) return errno;
    const int on = 1;
    ::setsockopt(fd.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    if (address->sa_family == AF_INET6) ::setsockopt(fd.get(), IPPROTO_IPV6, IPV6_V6ONLY, &on, sizeof on);
    return ::bind(fd.get(), address, size) == 0 ? 0 : errno;
  }

  void CheckSocket() {
    const std::string& path = config_.socket;
    if (path.empty()) return;
    constexpr std::size_t kMaxPath = 107;
    if (path.size() > kMaxPath) {
      return Add("socket", path,
                 fmt::format("The path has {} bytes, and a socket's path has at most {}", path.size(), kMaxPath),
                 "Choose a shorter path");
    }
    if (const auto process = FindUnixListener(path)) {
      if (IsRunningDaemon(*process)) return;
      return Add("socket", path, fmt::format("It is in use by {}", process->Text()), "Stop it, or choose another path");
    }
    struct stat info {};
    if (::lstat(path.c_str(), &info) == 0 && !S_ISSOCK(info.st_mode)) {
      return Add("socket", path, "It exists and is not a socket", "Move it away, or choose another path");
    }
    const std::string parent = fs::path(path).parent_path();
    const std::string folder = parent.empty() ? "." : parent;
    if (IsMadeByService(folder)) return;
    if (::faccessat(AT_FDCWD, folder.c_str(), W_OK | X_OK, AT_EACCESS) == 0) return;
    if (errno == ENOENT) {
      return Add("socket", path, fmt::format("The folder '{}' does not exist", folder),
                 fmt::format("Run: install -d -m 0755 -o {} '{}'", OwnAccount(), folder));
    }
    const std::string why = SystemText(errno);
    Add("socket", path, fmt::format("'{}' cannot make files in '{}': {}", OwnAccount(), folder, why),
        fmt::format("Run: chown {}: '{}'", OwnAccount(), folder));
  }

  // Without it, PAM refuses right passwords to a daemon that may not read their hashes.
  void CheckPasswordService() {
    const std::string& path = config_.auth_socket;
    if (config_.accounts != "pam" || path.empty() || ::geteuid() == 0) return;
    if (::faccessat(AT_FDCWD, path.c_str(), R_OK | W_OK, AT_EACCESS) == 0) return;
    const std::string why = SystemText(errno);
    Add("auth-socket", path, fmt::format("'{}' cannot ask vexa-auth for passwords: {}", OwnAccount(), why),
        "Run: systemctl enable --now vexa-auth.socket; or set it to \"\" when PAM needs no rights here");
  }

  void CheckHypervisor() {
    const std::string& uri = config_.hypervisor;
    if (uri.empty() || uri == "test" || uri == "none" || uri == "embed") return;
    if (uri.find(':') == std::string::npos) {
      return Add("hypervisor", uri, "It is neither 'test', 'embed', 'none' nor the URI of a libvirt driver",
                 "Did you mean 'qemu:///system'?");
    }
    // The first connection starts a user's own libvirt daemon, and opening an embedded driver makes its folder.
    const std::string driver = uri.substr(0, uri.find('?'));
    if (driver.ends_with("/session") || driver.ends_with("/embed")) return;
    const auto report = hypervisor::ProbeLibvirt(uri, options_.hypervisor_timeout);
    if (report) return;
    const bool is_system = driver.starts_with("qemu") && driver.ends_with(":///system");
    std::string help = "'man 7 libvirt' or the URI's server explains it; \"test\" only simulates guests";
    if (is_system) {
      help = report.error().kind() == hypervisor::FailureKind::kDenied
                 ? fmt::format("Run: usermod -aG libvirt {}", OwnAccount())
                 : "Install libvirt-daemon-system, and run: systemctl start libvirtd";
    }
    Add("hypervisor", uri, report.error().ToString(), std::move(help));
  }

  const Config& config_;
  const StartCheckOptions& options_;
  bool is_daemon_running_ = false;
  ConfigProblems problems_;
};

}  // namespace

ConfigProblems CheckStart(const Config& config, const StartCheckOptions& options) {
  return StartCheck(config, options).Run();
}

CheckAccount ChooseCheckAccount(const CommandLine& command) {
  if (!command.check_as.empty()) return {command.check_as, command.check_as == kServiceAccount};
  if (::geteuid() != 0 || !command.is_service_file || !::getpwnam(kServiceAccount)) return {};
  return {kServiceAccount, true};
}

}  // namespace vexa::daemon
