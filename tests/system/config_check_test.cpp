// What `vexad --check-config` and a start that fails report, as text.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <fmt/format.h>
#include <pwd.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>

#include "host/base/descriptor.h"
#include "host/base/files.h"
#include "host/transport/certificates.h"
#include "tests/support/process.h"
#include "tests/support/taken_port.h"
#include "tests/support/temp_dir.h"

namespace {

namespace fs = std::filesystem;
using vexa::Descriptor;
using vexa::test::Process;
using vexa::test::ProcessResult;
using vexa::test::RunProcess;

constexpr std::chrono::seconds kTimeout{60};
constexpr const char* kOtherAccount = "nobody";
constexpr const char* kHostId = "0b6c1f5e-2a7d-4c39-8e14-93d5a7f0c211";

std::string OwnName() {
  const passwd* const entry = ::getpwuid(::geteuid());
  return entry ? entry->pw_name : "";
}

std::string ThisProcess() {
  std::string name;
  std::ifstream("/proc/self/comm") >> name;
  return fmt::format("process {} ({})", ::getpid(), name);
}

class ConfigCheck : public testing::Test {
 protected:
  std::vector<std::string> Arguments(const std::vector<std::string>& more) const {
    std::vector<std::string> arguments{VEXAD_PROGRAM, "--data",      Data(),  "--socket", folder_.File("s"),
                                       "--listen",    "127.0.0.1:0", "--log", "stderr"};
    arguments.insert(arguments.end(), more.begin(), more.end());
    return arguments;
  }
  ProcessResult Check(std::vector<std::string> more) const {
    more.emplace_back("--check-config");
    return RunProcess({.argv = Arguments(more)});
  }
  // Expects exactly these lines of a check.
  void ExpectFindings(const std::vector<std::string>& more, const std::string& lines) const {
    const ProcessResult result = Check(more);
    EXPECT_EQ(result.errors, lines);
    EXPECT_EQ(result.exit_code, lines.empty() ? 0 : 2);
    EXPECT_EQ(result.output, lines.empty() ? "The configuration is valid.\n" : "");
  }
  std::string Data() const { return folder_.File("data"); }
  // Makes the test's folder one that other accounts can enter.
  void Open() const { ASSERT_EQ(::chmod(folder_.path().c_str(), 0755), 0); }
  std::string Write(const std::string& name, const std::string& text, mode_t mode) const {
    EXPECT_TRUE(vexa::WriteFileAtomically(folder_.File(name), text, mode).ok());
    return folder_.File(name);
  }

  vexa::test::TempDir folder_;
};

TEST_F(ConfigCheck, NothingWrong_ChangesNothing) {
  ExpectFindings({}, "");
  EXPECT_TRUE(fs::is_empty(folder_.path()));
}

TEST_F(ConfigCheck, Mistakes_OfSeveralKinds_AreReportedTogetherByCheckAndStart) {
  const vexa::test::TakenPort taken;
  const std::string listen = fmt::format("127.0.0.1:{}", taken.port());
  const std::vector<std::string> flags{"--listen",  listen,    "--tls-certificate", "/no/cert",
                                       "--tls-key", "/no/key", "--hypervisor",      "qemu"};
  const std::string lines = fmt::format(
      "vexad: tls-certificate = \"/no/cert\": Cannot open '/no/cert': No such file or directory. Name a certificate "
      "file "
      "(PEM) that '{0}' may read.\n"
      "vexad: tls-key = \"/no/key\": There is no file '/no/key': No such file or directory. Name the private key (PEM) "
      "of "
      "the certificate.\n"
      "vexad: listen = \"{1}\": Port {2} is in use by {3}. Stop it, or choose another port.\n"
      "vexad: hypervisor = \"qemu\": It is neither 'test', 'embed', 'none' nor the URI of a libvirt driver. Did you "
      "mean "
      "'qemu:///system'?\n",
      OwnName(), listen, taken.port(), ThisProcess());
  const ProcessResult checked =
      RunProcess({.argv = {VEXAD_PROGRAM, "--data", Data(), "--socket", folder_.File("s"), flags[0], flags[1], flags[2],
                           flags[3], flags[4], flags[5], flags[6], flags[7], "--check-config"}});
  EXPECT_EQ(checked.errors, lines);
  EXPECT_EQ(checked.exit_code, 2);
  EXPECT_FALSE(fs::exists(Data()));
  const ProcessResult started =
      RunProcess({.argv = {VEXAD_PROGRAM, "--data", Data(), "--socket", folder_.File("s"), "--log", "stderr", flags[0],
                           flags[1], flags[2], flags[3], flags[4], flags[5], flags[6], flags[7]}});
  EXPECT_EQ(started.exit_code, 1);
  EXPECT_NE(started.errors.find("The start failed: "), std::string::npos) << started.errors;
  for (const char* const part :
       {"tls-certificate = \"/no/cert\": ", "tls-key = \"/no/key\": ", " is in use by ", "hypervisor = \"qemu\": "}) {
    EXPECT_NE(started.errors.find(part), std::string::npos) << started.errors;
  }
}

TEST_F(ConfigCheck, ContradictionAndPort_AreRefusedTogetherByTheStart) {
  const vexa::test::TakenPort taken;
  const std::string listen = fmt::format("127.0.0.1:{}", taken.port());
  const ProcessResult result = RunProcess({.argv = {VEXAD_PROGRAM, "--data", Data(), "--socket", folder_.File("s"),
                                                    "--listen", listen, "--cluster-key", "k"}});
  EXPECT_EQ(result.exit_code, 2);
  EXPECT_EQ(result.errors,
            fmt::format("vexad: cluster-certificate = \"\": 'cluster-certificate' and 'cluster-key' go together. Set "
                        "both or none.\n"
                        "vexad: listen = \"{}\": Port {} is in use by {}. Stop it, or choose another port.\n",
                        listen, taken.port(), ThisProcess()));
  EXPECT_FALSE(fs::exists(Data()));
}

TEST_F(ConfigCheck, TypingMistakeAndPort_AreReportedTogether) {
  const vexa::test::TakenPort taken;
  const std::string listen = fmt::format("127.0.0.1:{}", taken.port());
  const ProcessResult result = RunProcess({.argv = {VEXAD_PROGRAM, "--data", Data(), "--socket", folder_.File("s"),
                                                    "--listen", listen, "--io-thread", "2"}});
  EXPECT_EQ(result.exit_code, 2);
  EXPECT_EQ(result.errors,
            fmt::format("vexad: --io-thread = \"2\": There is no setting 'io-thread'. Did you mean 'io-threads'?\n"
                        "vexad: listen = \"{}\": Port {} is in use by {}. Stop it, or choose another port.\n",
                        listen, taken.port(), ThisProcess()));
}

TEST_F(ConfigCheck, RunningDaemon_IsNotAMistakeAndNotDisturbed) {
  Process daemon({.argv = Arguments({})});
  ASSERT_TRUE(daemon.WaitForText("Ready.", kTimeout)) << daemon.errors();
  const std::string log = daemon.errors();
  const std::string before = "Listening on http://";
  const std::size_t start = log.find(before) + before.size();
  const std::string address = log.substr(start, log.find(".\n", start) - start);
  const ProcessResult same = RunProcess({.argv = {VEXAD_PROGRAM, "--data", Data(), "--socket", folder_.File("s"),
                                                  "--listen", address, "--check-config"}});
  EXPECT_EQ(same.errors, "");
  EXPECT_EQ(same.exit_code, 0);
  const ProcessResult other = RunProcess({.argv = {VEXAD_PROGRAM, "--data", folder_.File("other"), "--socket",
                                                   folder_.File("s"), "--listen", address, "--check-config"}});
  const std::string user = fmt::format("is in use by process {} (vexad)", daemon.pid());
  EXPECT_EQ(other.errors, fmt::format("vexad: listen = \"{0}\": Port {1} {2}. Stop it, or choose another port.\n"
                                      "vexad: socket = \"{3}\": It {2}. Stop it, or choose another path.\n",
                                      address, address.substr(address.rfind(':') + 1), user, folder_.File("s")));
  EXPECT_TRUE(daemon.IsRunning());
  daemon.Signal(SIGTERM);
  ASSERT_TRUE(daemon.Wait(kTimeout));
  EXPECT_EQ(daemon.errors().substr(log.size()).find("WARN"), std::string::npos) << daemon.errors();
}

// The account of the service does not see which process of root listens there.
TEST_F(ConfigCheck, PortOfAnotherAccount_BesideTheRunningDaemon_IsReported) {
  if (::geteuid() != 0) GTEST_SKIP() << "only root can check as another account";
  Open();
  const uid_t user = ::getpwnam(kOtherAccount)->pw_uid;
  for (const std::string& folder : {Data(), folder_.File("run")}) {
    ASSERT_TRUE(vexa::CreateDirectories(folder, 0700).ok());
    ASSERT_EQ(::chown(folder.c_str(), user, 0), 0);
  }
  const std::vector<std::string> settings{VEXAD_PROGRAM,         "--data", Data(),  "--socket",
                                          folder_.File("run/s"), "--log",  "stderr"};
  std::vector<std::string> start{"setpriv", fmt::format("--reuid={}", user), "--clear-groups"};
  start.insert(start.end(), settings.begin(), settings.end());
  start.insert(start.end(), {"--listen", "none"});
  Process daemon({.argv = start});
  ASSERT_TRUE(daemon.WaitForText("Ready.", kTimeout)) << daemon.errors();
  const vexa::test::TakenPort taken;
  std::vector<std::string> check = settings;
  const std::string listen = fmt::format("127.0.0.1:{}", taken.port());
  check.insert(check.end(), {"--listen", listen, "--check-config", "--check-as", kOtherAccount});
  const ProcessResult result = RunProcess({.argv = check});
  EXPECT_EQ(result.errors, fmt::format("vexad: listen = \"{}\": Port {} is in use by a process of 'root'. Stop it, or "
                                       "choose another port.\n",
                                       listen, taken.port()));
  EXPECT_EQ(result.exit_code, 2);
  daemon.Signal(SIGTERM);
  EXPECT_TRUE(daemon.Wait(kTimeout));
}

TEST_F(ConfigCheck, SettingNamedTwice_IsReported) {
  ExpectFindings({"--socket", folder_.File("t")},
                 "vexad: socket = \"\": At Most 1 required but received 2. Set it once.\n");
}

TEST_F(ConfigCheck, Socket_InABadPlace_IsReported) {
  const auto expect = [this](const std::string& socket, const std::string& line) {
    const ProcessResult result = RunProcess(
        {.argv = {VEXAD_PROGRAM, "--data", Data(), "--listen", "127.0.0.1:0", "--socket", socket, "--check-config"}});
    EXPECT_EQ(result.errors, line);
    EXPECT_EQ(result.exit_code, 2);
  };
  const std::string file = Write("file", "", 0600);
  expect(file, fmt::format("vexad: socket = \"{}\": It exists and is not a socket. Move it away, or choose another "
                           "path.\n",
                           file));
  const std::string missing = folder_.File("run/vexad.sock");
  expect(missing,
         fmt::format("vexad: socket = \"{0}\": The folder '{1}' does not exist. Run: install -d -m 0755 -o {2} "
                     "'{1}'.\n",
                     missing, folder_.File("run"), OwnName()));
  const std::string longest = "/" + std::string(120, 'x');
  expect(longest,
         fmt::format("vexad: socket = \"{}\": The path has 121 bytes, and a socket's path has at most 107. Choose "
                     "a shorter path.\n",
                     longest));
}

TEST_F(ConfigCheck, Address_OfAnotherMachine_IsReported) {
  const auto authority = vexa::transport::MakeAuthority();
  const auto host = vexa::transport::MakeHostCredentials(*authority, kHostId);
  const ProcessResult result =
      RunProcess({.argv = {VEXAD_PROGRAM, "--data", Data(), "--socket", folder_.File("s"), "--listen", "192.0.2.7:8642",
                           "--tls-certificate", Write("c", host->certificate, 0600), "--tls-key",
                           Write("k", host->key, 0600), "--check-config"}});
  EXPECT_EQ(
      result.errors,
      "vexad: listen = \"192.0.2.7:8642\": This machine does not have the address 192.0.2.7. 'ip address' shows its "
      "addresses; 0.0.0.0 and [::] stand for all of them.\n");
}

TEST_F(ConfigCheck, TlsFiles_ThatDoNotFit_AreReported) {
  const auto authority = vexa::transport::MakeAuthority();
  const auto first = vexa::transport::MakeHostCredentials(*authority, kHostId);
  const auto second = vexa::transport::MakeHostCredentials(*authority, kHostId);
  const std::string certificate = Write("c.pem", first->certificate, 0644);
  const std::string right = Write("right.key", first->key, 0600);
  const std::string wrong = Write("wrong.key", second->key, 0600);
  const std::string open = Write("open.key", first->key, 0644);
  ExpectFindings({"--tls-certificate", certificate, "--tls-key", right}, "");
  const ProcessResult mismatch = Check({"--tls-certificate", certificate, "--tls-key", wrong});
  EXPECT_EQ(mismatch.exit_code, 2);
  EXPECT_TRUE(mismatch.errors.starts_with("vexad: tls-key = \"" + wrong + "\": ")) << mismatch.errors;
  EXPECT_TRUE(mismatch.errors.ends_with(". Name the key that belongs to the certificate '" + certificate + "'.\n"))
      << mismatch.errors;
  ExpectFindings({"--tls-certificate", certificate, "--tls-key", open},
                 fmt::format("vexad: tls-key = \"{0}\": '{0}' may be used by others. Set its mode to 0600. Run: chown "
                             "{1}: '{0}' && chmod 0600 '{0}'.\n",
                             open, OwnName()));
}

TEST_F(ConfigCheck, ClusterFiles_ThatDoNotFit_AreReported) {
  const auto authority = vexa::transport::MakeAuthority();
  const auto other = vexa::transport::MakeAuthority();
  const auto host = vexa::transport::MakeHostCredentials(*authority, kHostId);
  const std::string trusted = Write("a.pem", authority->certificate, 0644);
  const std::string certificate = Write("h.pem", host->certificate, 0644);
  const std::string key = Write("h.key", host->key, 0600);
  const std::vector<std::string> flags{"--cluster-listen", "127.0.0.1:0",         "--cluster-certificate",
                                       certificate,        "--cluster-authority", trusted};
  const auto with = [&flags](std::initializer_list<std::string> more) {
    std::vector<std::string> all = flags;
    all.insert(all.end(), more);
    return all;
  };
  ExpectFindings(with({"--cluster-key", key}), "");
  const ProcessResult mismatch = Check(with({"--cluster-key", Write("o.key", other->key, 0600)}));
  EXPECT_TRUE(mismatch.errors.starts_with("vexad: cluster-certificate = \"" + certificate + "\": ")) << mismatch.errors;
  EXPECT_TRUE(mismatch.errors.ends_with(". Name the three files that 'vexa cluster certificate' has made together.\n"))
      << mismatch.errors;
  const ProcessResult unusable =
      Check(with({"--cluster-key", key, "--authority-key", Write("u.key", other->key, 0600)}));
  EXPECT_TRUE(unusable.errors.starts_with("vexad: authority-key = \"" + folder_.File("u.key") + "\": "))
      << unusable.errors;
  EXPECT_TRUE(unusable.errors.ends_with(". Name the private key of the authority '" + trusted + "'.\n"))
      << unusable.errors;
}

TEST_F(ConfigCheck, Folders_ThatAreFilesOrOpen_AreReported) {
  ASSERT_EQ(::mkdir(Data().c_str(), 0777), 0);
  ASSERT_EQ(::chmod(Data().c_str(), 0777), 0);
  const std::string file = Write("file", "", 0600);
  ExpectFindings({"--image-roots", file},
                 fmt::format("vexad: data = \"{0}\": The folder can be changed by other users. Run: chmod go-w '{0}'.\n"
                             "vexad: image-roots = \"{1}\": It is not a folder. Move the file away.\n",
                             Data(), file));
}

// Root made these for the service, with a command or by hand.
TEST_F(ConfigCheck, FoldersOfAnotherAccount_AreReportedForTheAccountOfTheService) {
  if (::geteuid() != 0) GTEST_SKIP() << "only root can check as another account";
  Open();
  ASSERT_TRUE(vexa::CreateDirectories(Data() + "/store", 0755).ok());
  ASSERT_EQ(::chown(Data().c_str(), ::getpwnam(kOtherAccount)->pw_uid, 0), 0);
  ASSERT_EQ(::chmod((Data() + "/store").c_str(), 0755), 0);
  for (const char* const name : {"data/store/data.mdb", "data/store/lock.mdb"}) Write(name, "", 0600);
  ASSERT_TRUE(vexa::CreateDirectories(folder_.File("images"), 0700).ok());
  const ProcessResult result =
      Check({"--check-as", kOtherAccount, "--image-roots", folder_.File("images"), "--image-roots", "/no/images"});
  EXPECT_EQ(result.exit_code, 2);
  for (const std::string& line :
       {fmt::format(
            "' belongs to 'root', and '{0}' cannot use it; 1 more files are like it. Run: chown -R {0}: '{1}'.\n",
            kOtherAccount, Data()),
        fmt::format(
            "vexad: image-roots = \"{0}\": The folder belongs to 'root' and has mode 0700, so '{1}' cannot use it "
            "(Permission denied). Run: chown {1}: '{0}'.\n",
            folder_.File("images"), kOtherAccount),
        fmt::format("vexad: image-roots = \"/no/images\": The folder does not exist, and '{0}' cannot make it. Run: "
                    "install -d -m 0700 -o {0} '/no/images'.\n",
                    kOtherAccount),
        fmt::format("vexad: socket = \"{0}\": '{1}' cannot make files in '{2}': Permission denied. Run: chown {1}: "
                    "'{2}'.\n",
                    folder_.File("s"), kOtherAccount, folder_.path())}) {
    EXPECT_NE(result.errors.find(line), std::string::npos) << line << " is not in: " << result.errors;
  }
  EXPECT_EQ(std::count(result.errors.begin(), result.errors.end(), '\n'), 4) << result.errors;
}

TEST_F(ConfigCheck, PortBelow1024_IsReportedForTheAccountOfTheService) {
  if (::geteuid() != 0) GTEST_SKIP() << "only root can check as another account";
  int first = 1024;
  std::ifstream("/proc/sys/net/ipv4/ip_unprivileged_port_start") >> first;
  if (first <= 99) GTEST_SKIP() << "every account may use every port here";
  const ProcessResult result = RunProcess({.argv = {VEXAD_PROGRAM, "--data", "/tmp", "--socket", "", "--listen",
                                                    "127.0.0.1:99", "--check-config", "--check-as", kOtherAccount}});
  EXPECT_NE(
      result.errors.find("vexad: listen = \"127.0.0.1:99\": 'nobody' may not listen on port 99. Choose a port above "
                         "1023.\n"),
      std::string::npos)
      << result.errors;
}

TEST_F(ConfigCheck, PasswordsWithoutTheirService_AreReportedForTheAccountOfTheService) {
  if (::geteuid() != 0) GTEST_SKIP() << "only root can check as another account";
  Open();
  const auto check = [](const std::string& account, const std::string& socket) {
    return RunProcess({.argv = {VEXAD_PROGRAM, "--data", "/tmp", "--socket", "", "--listen", "127.0.0.1:0",
                                "--accounts", "pam", "--auth-socket", socket, "--check-config", "--check-as", account}})
        .errors;
  };
  const std::string socket = folder_.File("auth");
  const auto line = [&socket](const std::string& why) {
    return fmt::format(
        "vexad: auth-socket = \"{}\": 'nobody' cannot ask vexa-auth for passwords: {}. Run: systemctl "
        "enable --now vexa-auth.socket; or set it to \"\" when PAM needs no rights here.\n",
        socket, why);
  };
  EXPECT_NE(check(kOtherAccount, socket).find(line("No such file or directory")), std::string::npos);
  Write("auth", "", 0600);
  EXPECT_NE(check(kOtherAccount, socket).find(line("Permission denied")), std::string::npos);
  ASSERT_EQ(::chmod(socket.c_str(), 0666), 0);
  EXPECT_EQ(check(kOtherAccount, socket).find("auth-socket"), std::string::npos);
  EXPECT_EQ(check("root", folder_.File("none")).find("auth-socket"), std::string::npos);
}

TEST_F(ConfigCheck, UnknownAccount_IsReported) {
  ExpectFindings({"--check-as", "no-such-account"},
                 "vexad: --check-as = \"no-such-account\": There is no account 'no-such-account'. Run the command as "
                 "root, with an account of this machine.\n");
}

TEST_F(ConfigCheck, Hypervisor_ThatCannotBeReached_IsReported) {
  const std::string uri = "qemu+unix:///system?socket=" + folder_.File("no.sock");
  const ProcessResult missing = Check({"--hypervisor", uri});
  EXPECT_EQ(missing.exit_code, 2);
  EXPECT_TRUE(missing.errors.starts_with("vexad: hypervisor = \"" + uri + "\": Cannot connect to '" + uri + "': "))
      << missing.errors;
  EXPECT_NE(missing.errors.find("No such file or directory"), std::string::npos) << missing.errors;
  const ProcessResult unknown = Check({"--hypervisor", "quemu:///system"});
  EXPECT_EQ(unknown.exit_code, 2);
  EXPECT_TRUE(
      unknown.errors.starts_with("vexad: hypervisor = \"quemu:///system\": Cannot connect to 'quemu:///system'"))
      << unknown.errors;
  ExpectFindings({"--hypervisor", "test:///default"}, "");
}

// A server that accepts and says nothing.
TEST_F(ConfigCheck, Hypervisor_ThatDoesNotAnswer_IsReportedAfterTheDeadline) {
  const Descriptor silent(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  folder_.File("silent").copy(address.sun_path, sizeof address.sun_path - 1);
  ASSERT_EQ(::bind(silent.get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  ASSERT_EQ(::listen(silent.get(), 8), 0);
  const std::string uri = "qemu+unix:///system?socket=" + folder_.File("silent");
  ASSERT_TRUE(vexa::CreateDirectories(Data(), 0700).ok());
  const std::string lock = Write("data/vexad.lock", "", 0600);
  Process check({.argv = Arguments({"--hypervisor", uri, "--check-config"})});
  const Descriptor called(::accept4(silent.get(), nullptr, nullptr, SOCK_CLOEXEC));
  {
    const Descriptor file(::open(lock.c_str(), O_RDWR | O_CLOEXEC));
    EXPECT_EQ(::flock(file.get(), LOCK_EX | LOCK_NB), 0) << "a daemon could not start beside the check";
  }
  const auto status = check.Wait(kTimeout);
  ASSERT_TRUE(status);
  EXPECT_EQ(check.errors(), fmt::format("vexad: hypervisor = \"{0}\": '{0}' did not answer within 10 seconds. Install "
                                        "libvirt-daemon-system, and run: systemctl start libvirtd.\n",
                                        uri));
}

TEST_F(ConfigCheck, UnreadableFile_IsReported) {
  if (::geteuid() != 0) GTEST_SKIP() << "only root can check as another account";
  Open();
  const std::string file = Write("conf", "data = \"/d\"\n", 0600);
  const std::string user = fmt::format("--reuid={}", ::getpwnam(kOtherAccount)->pw_uid);
  const ProcessResult result =
      RunProcess({.argv = {"setpriv", user, "--clear-groups", VEXAD_PROGRAM, "--config", file, "--check-config"}});
  EXPECT_EQ(result.exit_code, 2);
  EXPECT_TRUE(result.errors.starts_with(
      fmt::format("vexad: --config = \"{}\": The file cannot be read: Permission denied. Name a file that exists, and "
                  "that this account may read.\n",
                  file)))
      << result.errors;
}

}  // namespace
