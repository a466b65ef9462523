// The daemon with the rights that its unit gives it, and what a program with these rights cannot do.
#include <gtest/gtest.h>
#include <linux/capability.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <map>
#include <regex>
#include <sstream>

#include "host/base/files.h"
#include "tests/support/process.h"
#include "tests/support/temp_dir.h"
#include "tests/support/vexad_client.h"

namespace vexa::test {
namespace {

constexpr std::chrono::seconds kTimeout{60};
const std::string kUnit = std::string(VEXA_SOURCE_DIR) + "/packaging/vexad.service";
const std::string kEmbedDropIn = std::string(VEXA_SOURCE_DIR) + "/packaging/vexad-embed.conf";

// What the program forbidden_calls prints: the error number of each call.
std::map<std::string, int> Errors(const std::vector<std::string>& command) {
  const ProcessResult result = RunProcess({.argv = command});
  EXPECT_EQ(result.exit_code, 0) << result.errors;
  std::map<std::string, int> errors;
  std::istringstream lines(result.output);
  std::string name;
  for (int error = 0; lines >> name >> error;) errors[name] = error;
  return errors;
}
std::map<std::string, int> ErrorsUnder(std::vector<std::string> units) {
  units.insert(units.begin(), CONFINED_PROGRAM);
  units.insert(units.end(), {"--", FORBIDDEN_CALLS_PROGRAM});
  return Errors(units);
}
// What this machine itself answers: a container may forbid some of the calls, too.
std::map<std::string, int> ErrorsUnconfined() { return Errors({FORBIDDEN_CALLS_PROGRAM}); }

// What the daemon's unit refuses, with the errors that systemd.exec(5) describes; everything else is EPERM.
std::map<std::string, int> RefusedCalls() {
  std::map<std::string, int> errors;
  for (const char* const name : {"ptrace",
                                 "process_vm_readv",
                                 "mount",
                                 "umount",
                                 "pivot_root",
                                 "chroot",
                                 "bpf",
                                 "perf_event_open",
                                 "keyctl",
                                 "add_key",
                                 "reboot",
                                 "kexec_load",
                                 "init_module",
                                 "finit_module",
                                 "delete_module",
                                 "swapon",
                                 "clock_settime",
                                 "sethostname",
                                 "syslog",
                                 "iopl",
                                 "setuid",
                                 "chown",
                                 "open_by_handle_at",
                                 "userfaultfd",
                                 "io_uring_setup",
                                 "unshare_user",
                                 "setns",
                                 "personality",
                                 "realtime",
                                 "set_id_file",
                                 "write_execute",
                                 "make_executable",
                                 "seccomp"}) {
    errors[name] = EPERM;
  }
  errors["clone3"] = ENOSYS;
  errors["openat2"] = ENOSYS;
  errors["packet_socket"] = EAFNOSUPPORT;
  errors["vsock_socket"] = EAFNOSUPPORT;
  for (const char* const name : {"unix_socket", "netlink_socket", "read_write_memory", "open"}) errors[name] = 0;
  return errors;
}

TEST(Confinement, ForbiddenCalls_UnderUnit_Fail) { EXPECT_EQ(ErrorsUnder({kUnit}), RefusedCalls()); }

TEST(Confinement, ForbiddenCalls_UnderEmbedDropIn_FailExceptWhatQemuNeeds) {
  std::map<std::string, int> expected = RefusedCalls();
  const std::map<std::string, int> unconfined = ErrorsUnconfined();
  for (const char* const name :
       {"write_execute", "make_executable", "vsock_socket", "chown", "seccomp", "io_uring_setup"}) {
    expected[name] = unconfined.at(name);
  }
  EXPECT_EQ(ErrorsUnder({kUnit, kEmbedDropIn}), expected);
}

// So that the test above fails when the filter is missing, and not only the rights.
TEST(Confinement, ForbiddenCalls_UnitWithWiderFilter_Succeed) {
  const TempDir folder;
  std::ifstream unit(kUnit);
  std::ostringstream text;
  text << unit.rdbuf() << "\n[Service]\nSystemCallFilter=@debug @keyring @setuid\n";
  ASSERT_TRUE(WriteFileAtomically(folder.File("unit"), text.str(), 0600).ok());
  const std::map<std::string, int> errors = ErrorsUnder({folder.File("unit")});
  const std::map<std::string, int> unconfined = ErrorsUnconfined();
  for (const char* const name : {"ptrace", "add_key", "keyctl", "setuid"}) {
    EXPECT_EQ(errors.at(name), unconfined.at(name)) << name;
  }
  EXPECT_EQ(errors.at("mount"), EPERM);
}

TEST(Confinement, Launcher_UnitWithUnknownSettingOrCall_IsRefused) {
  const TempDir folder;
  for (const char* const line : {"PrivateEverything=yes", "SystemCallFilter=no_such_call", "SystemCallFilter=@nothing",
                                 "RestrictAddressFamilies=AF_NOTHING"}) {
    ASSERT_TRUE(WriteFileAtomically(folder.File("more"), std::string("[Service]\n") + line + "\n", 0600).ok());
    const ProcessResult result =
        RunProcess({.argv = {CONFINED_PROGRAM, kUnit, folder.File("more"), "--", FORBIDDEN_CALLS_PROGRAM}});
    EXPECT_EQ(result.exit_code, 3) << line;
    EXPECT_EQ(result.output, "") << line;
  }
}

TEST(Confinement, Unit_Exposure_IsBelowTwo) {
  const ProcessResult result =
      RunProcess({.argv = {"systemd-analyze", "--no-pager", "security", "--offline=true", "--threshold=19", kUnit}});
  EXPECT_EQ(result.exit_code, 0) << result.output << result.errors;
}

class ConfinedVexad : public testing::Test {
 protected:
  void Start(const std::vector<std::string>& options = {}) {
    std::vector<std::string> argv{
        CONFINED_PROGRAM,  kUnit,      "--",          VEXAD_PROGRAM, "--data", folder_.File("data"), "--socket",
        folder_.File("s"), "--listen", "127.0.0.1:0", "--log",       "stderr"};
    argv.insert(argv.end(), options.begin(), options.end());
    process_ = std::make_unique<Process>(ProcessOptions{.argv = argv});
    ASSERT_TRUE(process_->WaitForText("Ready.", kTimeout)) << process_->errors();
  }
  ProcessResult Vexa(std::vector<std::string> arguments, const std::string& input = "") const {
    arguments.insert(arguments.begin(), {VEXA_PROGRAM, "--socket", folder_.File("s")});
    return RunProcess({.argv = arguments, .input = input});
  }
  std::string StatusLine(const std::string& name) const { return StatusLineOf(process_->pid(), name); }
  static std::string StatusLineOf(pid_t pid, const std::string& name) {
    std::ifstream status("/proc/" + std::to_string(pid) + "/status");
    for (std::string line; std::getline(status, line);) {
      if (line.starts_with(name + ":")) return line.substr(line.find_first_not_of(" \t", name.size() + 1));
    }
    return "";
  }

  TempDir folder_;
  std::unique_ptr<Process> process_;
};

TEST_F(ConfinedVexad, Process_HasNoRightsAndFilters) {
  ASSERT_NO_FATAL_FAILURE(Start());
  EXPECT_EQ(StatusLine("NoNewPrivs"), "1");
  EXPECT_EQ(StatusLine("Seccomp"), "2");
  for (const char* const set : {"CapInh", "CapPrm", "CapEff", "CapAmb"}) {
    EXPECT_EQ(StatusLine(set), "0000000000000000") << set;
  }
  // Like a service manager, the launcher needs a right of its own to empty this set.
  const auto own_rights = std::stoull(StatusLineOf(::getpid(), "CapEff"), nullptr, 16);
  if ((own_rights >> CAP_SETPCAP & 1) != 0) {
    EXPECT_EQ(StatusLine("CapBnd"), "0000000000000000");
  }
  std::ifstream limits("/proc/" + std::to_string(process_->pid()) + "/limits");
  std::ostringstream text;
  text << limits.rdbuf();
  EXPECT_TRUE(std::regex_search(text.str(), std::regex("Max core file size +0 +0 "))) << text.str();
}

// Accounts, the store, the hypervisor's threads, both kinds of listeners, and a stop.
TEST_F(ConfinedVexad, Requests_OfEveryKind_AreServed) {
  ASSERT_NO_FATAL_FAILURE(Start());
  const ProcessResult added =
      Vexa({"user", "add", "admin", "--group", "administrators", "--password-stdin"}, "correct horse\n");
  EXPECT_EQ(added.exit_code, 0) << added.errors;
  HttpClient client(NetworkOf(*process_));
  const HttpReply login =
      client.PostJson("/webapi/VEXA.Core.Session/login", R"({"user":"admin","password":"correct horse"})");
  EXPECT_EQ(login.status, 200) << login.body;
  const ProcessResult import = Vexa({"import", "--manifest", std::string(VEXA_SOURCE_DIR) + "/examples/cluster.json"});
  EXPECT_EQ(import.exit_code, 0) << import.errors;
  const std::string guest = "0b6c1f5e-2a7d-4c39-8e14-93d5a7f0c211";
  for (const std::vector<std::string>& command :
       std::vector<std::vector<std::string>>{{"guest", "get", guest},
                                             {"guest", "set", guest, "desc=confined"},
                                             {"guest", "list"},
                                             {"host", "list"},
                                             {"log"},
                                             {"health"}}) {
    const ProcessResult result = Vexa(command);
    EXPECT_EQ(result.exit_code, 0) << command[0] << " " << result.output << result.errors;
  }
  process_->Signal(SIGTERM);
  const auto status = process_->Wait(kTimeout);
  ASSERT_TRUE(status.has_value());
  EXPECT_EQ(status->code, 0) << process_->errors();
}

// qemu-img, a child of the daemon, has the same filter.
TEST_F(ConfinedVexad, CopyOfEachFormat_IsMade) {
  constexpr char kQemuImg[] = "/usr/bin/qemu-img";
  if (::access(kQemuImg, X_OK) != 0) GTEST_SKIP() << "qemu-img is not installed";
  const std::string images = folder_.File("images");
  ASSERT_EQ(::mkdir(images.c_str(), 0700), 0);
  const std::string content(std::size_t{3} << 20, 'x');
  std::ofstream(images + "/old.raw") << content;
  ASSERT_NO_FATAL_FAILURE(Start({"--hypervisor", "test", "--image-roots", images}));
  ASSERT_EQ(Vexa({"repository", "add", "pool"}).exit_code, 0);
  for (const std::string format : {"raw", "qcow2", "vmdk", "vdi"}) {
    const std::string old = images + "/old." + format;
    if (format != "raw") {
      ASSERT_EQ(
          RunProcess({.argv = {kQemuImg, "convert", "-f", "raw", "-O", format, images + "/old.raw", old}}).exit_code,
          0);
    }
    const ProcessResult created = Vexa({"guest", "create", "of-" + format, "--disk", "from=" + old + ",format=raw"});
    EXPECT_EQ(created.exit_code, 0) << created.errors << process_->errors();
  }
  int copies = 0;
  for (const auto& entry : std::filesystem::recursive_directory_iterator(images)) {
    if (entry.path().extension() != ".raw" && entry.path().extension() != ".img") continue;
    std::ifstream copy(entry.path());
    EXPECT_TRUE(std::string(std::istreambuf_iterator<char>(copy), {}) == content) << entry.path();
    ++copies;
  }
  EXPECT_EQ(copies, 5);
}

}  // namespace
}  // namespace vexa::test
