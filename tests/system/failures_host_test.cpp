// Failures of a machine and its vexad that users cause, with real programs: who reads only the answer knows what is
// wrong, and what to do next.
#include <fmt/format.h>
#include <pwd.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <memory>
#include <optional>

#include "host/base/files.h"
#include "tests/support/taken_port.h"
#include "tests/system/cli_program.h"

namespace vexa::test {
namespace {

constexpr std::chrono::seconds kTimeout{120};
constexpr const char* kAccount = "nobody";  // in place of the service's

class HostFailures : public CliTest {
 protected:
  void SetUp() override { ASSERT_EQ(::chmod(folder_.path().c_str(), 0755), 0); }

  std::string Socket() const { return folder_.File("vexad.sock"); }  // that of CliTest's clients
  std::string Data() const { return folder_.File("data"); }
  std::vector<std::string> Vexad(const std::vector<std::string>& more) const {
    std::vector<std::string> arguments{VEXAD_PROGRAM, "--data", Data(),         "--socket", Socket(),
                                       "--log",       "stderr", "--hypervisor", "test"};
    arguments.insert(arguments.end(), more.begin(), more.end());
    return arguments;
  }
  // A start that fails: what it prints.
  static std::string FailedStart(const std::vector<std::string>& arguments) {
    const ProcessResult result = RunProcess({.argv = arguments}, kTimeout);
    EXPECT_EQ(result.exit_code, 1) << result.errors;
    return result.errors;
  }
  void Start(const std::vector<std::string>& arguments) {
    host_ = std::make_unique<Process>(ProcessOptions{.argv = arguments});
    ASSERT_TRUE(host_->WaitForText("Ready.", kTimeout)) << host_->errors();
  }
  // What the command prints, which must fail.
  std::string Failed(const std::vector<std::string>& words, int exit_code) const {
    const ProcessResult result = RunProcess(Program(words), kTimeout);
    EXPECT_EQ(result.exit_code, exit_code);
    EXPECT_EQ(result.output, "");
    return result.errors;
  }
  void ExpectDone(const std::vector<std::string>& words) const {
    const ProcessResult result = RunProcess(Program(words), kTimeout);
    EXPECT_EQ(result.exit_code, 0) << result.errors;
  }
  static std::string ThisProcess() {
    std::string name;
    std::ifstream("/proc/self/comm") >> name;
    return fmt::format("process {} ({})", ::getpid(), name);
  }

  std::unique_ptr<Process> host_;
};

// --- A port in use ---

TEST_F(HostFailures, PortInUse_NamesTheProcessAndTheSetting) {
  const TakenPort taken;
  const std::string address = fmt::format("127.0.0.1:{}", taken.port());
  EXPECT_EQ(FailedStart(Vexad({"--listen", address})),
            fmt::format("vexad: Guests are only simulated here: nothing runs.\n"
                        "vexad: The start failed: Cannot listen on '127.0.0.1 port {0}': Address already in use\n"
                        "vexad: listen = \"{1}\": Port {0} is in use by {2}. Stop it, or choose another port.\n",
                        taken.port(), address, ThisProcess()));
}

// What `./dev run` starts when it has built the programs.
TEST_F(HostFailures, PortInUse_OfSampleHost_NamesTheVariable) {
  const TakenPort taken;
  for (const auto& [what, command] : {std::pair("sample", "./dev run"), std::pair("once", "./dev run --once")}) {
    const ProcessResult result = RunProcess({.argv = {VEXA_SOURCE_DIR "/tools/run-sample-host", what},
                                             .environment = {{"VEXA_RUN_DIR", folder_.File(what)},
                                                             {"VEXA_BUILD_DIR", VEXA_BUILD_DIR},
                                                             {"VEXA_PORT", std::to_string(taken.port())}}},
                                            kTimeout);
    EXPECT_EQ(result.exit_code, 1);
    EXPECT_EQ(result.errors, fmt::format("Port {} is in use by {}. Choose another one: VEXA_PORT={} {}\n", taken.port(),
                                         ThisProcess(), taken.port() + 1, command));
  }
}

// --- A daemon that is stopped, gone or hanging ---

TEST_F(HostFailures, StoppedDaemon_IsExplained) {
  const std::string none = fmt::format(
      "vexa: No reply from {}: the socket does not exist, so no vexad runs here. Start it with 'sudo systemctl start "
      "vexad', or name a server with --server, --socket, $VEXA_SERVER or $VEXA_SOCKET\n",
      Socket());
  EXPECT_EQ(Failed({"guest", "list"}, 3), none) << "before its first start";
  Start(Vexad({"--listen", "127.0.0.1:0"}));
  const std::string log = host_->errors();
  const std::size_t start = log.find("http://");
  ASSERT_NE(start, std::string::npos) << log;
  const std::string url = log.substr(start, log.find(".\n", start) - start);
  ExpectDone({"guest", "list"});

  host_->Signal(SIGSTOP);
  EXPECT_THAT(Failed({"--timeout", "3", "guest", "list"}, 3),
              MatchesRegex(fmt::format(
                  "vexa: No reply from {}: [^:]+\\. vexad is there and does not answer: 'systemctl "
                  "status vexad' and 'journalctl -u vexad' show what it does, --timeout waits longer, and 'sudo "
                  "systemctl restart vexad' starts it again\n",
                  Socket())));
  EXPECT_THAT(Failed({"--timeout", "3", "--server", url, "health"}, 3),
              MatchesRegex("vexa: No reply from " + url +
                           ": [^:]+\\. Check the network and the load of the server; --timeout waits "
                           "longer\n"));
  host_->Signal(SIGCONT);
  ExpectDone({"guest", "list"});

  host_->Signal(SIGKILL);
  ASSERT_TRUE(host_->Wait(kTimeout));
  EXPECT_EQ(Failed({"guest", "list"}, 3),
            fmt::format("vexa: No reply from {}: vexad has ended. Start it with 'sudo systemctl start vexad'; "
                        "'journalctl -u vexad' shows why it ended\n",
                        Socket()));
  EXPECT_EQ(Failed({"--server", url, "health"}, 3),
            fmt::format("vexa: No reply from {}: nothing listens on its port {}. Check the port, and that vexad runs "
                        "there with the setting 'listen'\n",
                        url, url.substr(url.rfind(':') + 1)));

  Start(Vexad({"--listen", "none"}));
  host_->Signal(SIGTERM);
  ASSERT_TRUE(host_->Wait(kTimeout));
  EXPECT_EQ(Failed({"guest", "list"}, 3), none);
}

// Ends while a request is answered.
TEST_F(HostFailures, DaemonKilledMeanwhile_IsExplained) {
  Start(Vexad({"--listen", "none"}));
  host_->Signal(SIGSTOP);
  Process client(Program({"-v", "guest", "list"}));
  ASSERT_TRUE(client.WaitForText("> POST", kTimeout)) << client.errors();
  // The request is in the socket's queue once the client waits for the reply.
  const auto is_waiting = [&] {
    std::string state;
    std::ifstream file(fmt::format("/proc/{}/wchan", client.pid()));
    file >> state;
    return state.find("poll") != std::string::npos;
  };
  // Kernels that do not show it get the time that connecting takes.
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (!is_waiting() && std::chrono::steady_clock::now() < end) ::usleep(10'000);
  host_->Signal(SIGKILL);
  const auto status = client.Wait(kTimeout);
  ASSERT_TRUE(status);
  EXPECT_EQ(status->code, 3);
  EXPECT_THAT(client.errors(),
              HasSubstr("vexad has ended or closed the connection: 'systemctl status vexad' shows whether it runs, and "
                        "'journalctl -u vexad' what it did\n"));
}

TEST_F(HostFailures, DataFolderInUse_IsExplained) {
  Start(Vexad({"--listen", "none"}));
  EXPECT_EQ(FailedStart({VEXAD_PROGRAM, "--data", Data(), "--socket", folder_.File("other.sock"), "--listen", "none",
                         "--log", "stderr"}),
            fmt::format("vexad: The start failed: Another vexad uses the data folder '{}'. Stop it ('systemctl stop "
                        "vexad'), or choose another folder with --data\n",
                        Data()));
}

// --- Typos in settings of vexad ---

TEST_F(HostFailures, TypoInSetting_NamesTheNearestOne) {
  WriteFile(folder_.File("vexad.conf"),
            fmt::format("data = \"{}\"\nsocket = \"{}\"\nlisen = \"127.0.0.1:0\"\n", Data(), Socket()));
  const auto run = [](const std::vector<std::string>& arguments) {
    const ProcessResult result = RunProcess({.argv = arguments}, kTimeout);
    EXPECT_EQ(result.exit_code, 2);
    return result.errors;
  };
  EXPECT_EQ(run({VEXAD_PROGRAM, "--config", folder_.File("vexad.conf")}),
            "vexad: lisen = \"127.0.0.1:0\": There is no setting 'lisen'. Did you mean 'listen'?\n");
  EXPECT_EQ(run(Vexad({"--listen", "none", "--io-thread", "2"})),
            "vexad: --io-thread = \"2\": There is no setting 'io-thread'. Did you mean 'io-threads'?\n");
  EXPECT_FALSE(std::filesystem::exists(Data()));
}

// --- Folders of another account ---

class FolderOwners : public HostFailures {
 protected:
  void SetUp() override {
    if (::geteuid() != 0) GTEST_SKIP() << "only root can run programs as another account";
    HostFailures::SetUp();
    user_ = ::getpwnam(kAccount)->pw_uid;
    for (const std::string& folder : {Data(), Images(), folder_.File("run")}) MakeFolder(folder);
  }
  void MakeFolder(const std::string& folder) const {
    ASSERT_TRUE(CreateDirectories(folder, 0700).ok());
    Give(folder, user_);
  }
  static void Give(const std::string& path, uid_t owner, mode_t mode = 0700) {
    ASSERT_EQ(::chown(path.c_str(), owner, 0), 0) << path;
    ASSERT_EQ(::chmod(path.c_str(), mode), 0) << path;
  }
  std::string Images() const { return folder_.File("images"); }
  std::vector<std::string> AsService() const {
    return {"setpriv", fmt::format("--reuid={}", user_), "--clear-groups", VEXAD_PROGRAM, "--data", Data(), "--socket",
            folder_.File("run/s"), "--listen", "none", "--log", "stderr", "--hypervisor", "test", "--image-roots",
            Images(),
            // The disk of the test's machine may be almost full.
            "--upload-reserve=0"};
  }
  // On the service, as root.
  ProcessResult OnService(std::vector<std::string> words) const {
    words.insert(words.begin(), {"--socket", folder_.File("run/s")});
    return RunProcess(Program(words), kTimeout);
  }
  std::string RepositoryFolder() const {
    for (const auto& entry : std::filesystem::directory_iterator(Images())) return entry.path();
    return "";
  }

  uid_t user_ = 0;
};

TEST_F(FolderOwners, WrongOwnerAtStart_IsExplained) {
  Give(Data(), 0);
  EXPECT_EQ(
      FailedStart(AsService()),
      fmt::format("vexad: The start failed: Cannot open '{0}/vexad.lock': Permission denied\n"
                  "vexad: data = \"{0}\": The folder belongs to 'root' and has mode 0700, so 'nobody' cannot use it "
                  "(Permission denied). Run: chown nobody: '{0}'.\n",
                  Data()));
  // What root's commands leave there.
  Give(Data(), user_);
  WriteFile(Data() + "/host-id", "0b6c1f5e-2a7d-4c39-8e14-93d5a7f0c211\n");
  EXPECT_THAT(
      FailedStart(AsService()),
      EndsWith(fmt::format("vexad: data = \"{0}\": '{0}/host-id' belongs to 'root', and 'nobody' cannot use it. "
                           "Run: chown -R nobody: '{0}'.\n",
                           Data())));
  // What the answer says works.
  RunProcess({.argv = {"chown", "-R", "nobody:", Data()}});
  Start(AsService());
}

TEST_F(FolderOwners, WrongOwnerWhileRunning_IsExplained) {
  Start(AsService());
  ASSERT_EQ(OnService({"repository", "add", "pool"}).exit_code, 0);
  ASSERT_EQ(OnService({"guest", "create", "web-1", "--memory", "16MiB", "--disk", "1"}).exit_code, 0);
  const std::string folder = RepositoryFolder();
  const std::string owner = fmt::format(
      "Permission denied; the folder '{0}' belongs to 'root' and has mode 0755, so 'nobody' cannot use it\\. "
      "Run: chown nobody: '{0}'\\.\n",
      folder);
  Give(folder, 0, 0755);
  const auto added = OnService({"guest", "set", "web-1", "--add-disk", "1"});
  EXPECT_EQ(added.exit_code, 1);
  EXPECT_THAT(
      added.errors,
      MatchesRegex("vexa: web-1: The guest could not be edited: its host refused, or could not read or write "
                   "what it needed\\. The system log has the reason \\(909\\)\\.\n"
                   "  Reason: Cannot create '" +
                   folder + "/[0-9a-f-]+\\.qcow2': " + owner +
                   "  Hint: The reason names the setting, disk or file; 'vexa guest set --help' lists what each "
                   "accepts\\.\n"));
  const auto deleted = OnService({"guest", "delete", "web-1", "--yes"});
  EXPECT_THAT(deleted.errors, MatchesRegex("vexa: web-1: [^\n]+ \\(901\\)\\.\n  Reason: Cannot rename '" + folder +
                                           "/[0-9a-f-]+\\.qcow2': " + owner + "  Hint: [^\n]+\n"));
  const auto created = OnService({"guest", "create", "web-2", "--disk", "1"});
  EXPECT_THAT(created.errors, MatchesRegex("vexa: [^\n]+ \\(901\\)\\.\n  Reason: Cannot create '" + folder +
                                           "/[0-9a-f-]+\\.qcow2': " + owner + "  Hint: [^\n]+\n"));
  // What the answer says works.
  RunProcess({.argv = {"chown", "nobody:", folder}});
  EXPECT_EQ(OnService({"guest", "set", "web-1", "--add-disk", "1"}).exit_code, 0);

  // The folder of all repositories.
  Give(Images(), 0, 0755);
  const std::string of_images = fmt::format(
      "Permission denied; the folder '{0}' belongs to 'root' and has mode 0755, so 'nobody' cannot use it\\. "
      "Run: chown nobody: '{0}'\\.\n",
      Images());
  const std::string hint =
      "  Hint: 'vexa repository list' shows the storage, and 'vexa health' the host\\.\n  Request: [0-9a-f]+\n";
  EXPECT_THAT(OnService({"repository", "add", "more"}).errors,
              MatchesRegex("vexa: [^\n]+ \\(949\\)\\.\n  Reason: The folder '" + Images() +
                           "/[0-9a-f-]+' cannot be made: " + of_images + hint));
  WriteFile(folder_.File("a.iso"), "twelve bytes");
  EXPECT_THAT(
      OnService({"image", "add", "a", folder_.File("a.iso"), "--upload"}).errors,
      HasSubstr(fmt::format("Permission denied; the folder '{0}' belongs to 'root' and has mode 0755, so 'nobody' "
                            "cannot use it. Run: chown nobody: '{0}'.\n",
                            Images())));
  // One that the service cannot even enter.
  Give(Images(), 0, 0700);
  EXPECT_THAT(
      OnService({"guest", "create", "web-3", "--disk", "1"}).errors,
      HasSubstr(fmt::format("Permission denied; the folder '{0}' belongs to 'root' and has mode 0700, so 'nobody' "
                            "cannot use it. Run: chown nobody: '{0}'",
                            Images())));
}

// --- No KVM ---

class Kvm : public HostFailures {
 protected:
  void SetUp() override {
    const bool may_mount = ::geteuid() == 0 && RunProcess({.argv = {"unshare", "--mount", "true"}}).exit_code == 0;
    if (!may_mount) GTEST_SKIP() << "this machine permits no mounts of its own";
    HostFailures::SetUp();
    WriteFile(folder_.File("vexad.conf"),
              fmt::format("data = \"{}\"\nsocket = \"{}\"\nlisten = \"127.0.0.1:0\"\nhypervisor = "
                          "\"embed\"\nhypervisor-root = \"{}\"\n",
                          Data(), folder_.File("run/s"), folder_.File("data/embed")));
    ASSERT_TRUE(CreateDirectories(folder_.File("run"), 0755).ok());
  }
  // The lines of `vexa setup` about KVM, on a machine whose /dev/kvm is what `make_kvm` makes in the folder $dev.
  std::string ReportOn(const std::string& make_kvm) const {
    const std::string script = fmt::format(
        "set -e; dev={0}; mkdir -p $dev; mount -t tmpfs -o mode=0755 tmpfs $dev\n"
        "for name in null zero full random urandom tty; do touch $dev/$name; mount --bind /dev/$name $dev/$name; done\n"
        "{1}\nmount --move $dev /dev\n"
        "exec {2} setup --yes --no-start --account {3} --config {4} --images {5}",
        folder_.File("dev"), make_kvm, VEXA_PROGRAM, kAccount, folder_.File("vexad.conf"), folder_.File("images"));
    const ProcessResult result =
        RunProcess({.argv = {"unshare", "--mount", "--propagation", "private", "sh", "-c", script},
                    .environment = Program({}).environment},
                   kTimeout);
    EXPECT_EQ(result.exit_code, 0) << result.errors;
    const std::size_t begin = result.output.find("  MISSING  KVM");
    const std::size_t end = result.output.find('\n', result.output.find('\n', begin) + 1);
    return begin == std::string::npos ? result.output : result.output.substr(begin, end + 1 - begin);
  }
};

TEST_F(Kvm, MissingOrUnusable_IsExplained) {
  const std::string switch_on =
      "           guests are emulated until then, many times slower: switch virtualization on in the firmware (or in "
      "the "
      "host of this virtual machine), and run: modprobe kvm_intel || modprobe kvm_amd\n";
  EXPECT_EQ(ReportOn(""), "  MISSING  KVM: /dev/kvm does not exist\n" + switch_on);
  EXPECT_EQ(ReportOn("touch $dev/kvm; mount --bind /dev/null $dev/kvm"),
            "  MISSING  KVM: 'nobody' cannot use /dev/kvm: a virtual machine cannot be made with it\n" + switch_on);
  EXPECT_EQ(ReportOn("touch $dev/kvm; chmod 0600 $dev/kvm"),
            "  MISSING  KVM: 'nobody' cannot use /dev/kvm: Permission denied\n"
            "           guests are emulated until then, many times slower; run: usermod -aG kvm nobody\n");
}

}  // namespace
}  // namespace vexa::test
