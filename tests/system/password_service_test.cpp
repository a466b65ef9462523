// The program vexa-auth with the rights that its unit gives it, asked by processes without rights; and how a host asks
// it.
#include <crypt.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <security/pam_appl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <functional>
#include <future>
#include <memory>
#include <sstream>
#include <thread>

#include "host/accounts/account_pam.h"
#include "host/accounts/password_service.h"
#include "host/base/packet_socket.h"
#include "tests/support/process.h"
#include "tests/support/temp_dir.h"

namespace vexa::test {
namespace {

using accounts::AskPasswordService;
using accounts::PasswordAnswer;
using accounts::PasswordQuestion;
using testing::HasSubstr;
using testing::IsEmpty;
using Outcome = PasswordAnswer::Outcome;

constexpr uid_t kNobody = 65534;
constexpr char kPermit[] = "auth required pam_permit.so\naccount required pam_permit.so\n";
constexpr std::chrono::seconds kPatience{30};

std::string TextOf(const PasswordAnswer& check) {
  constexpr const char* kNames[] = {"right", "wrong", "unusable", "failed"};
  std::string text = kNames[static_cast<int>(check.outcome)];
  for (const std::string* const more : {&check.user, &check.cause}) {
    if (!more->empty()) text += ": " + *more;
  }
  return text;
}

// What `act` returns in a process of that user.
std::string As(uid_t user, const std::function<std::string()>& act) {
  int ends[2];
  EXPECT_EQ(::pipe(ends), 0);
  const pid_t child = ::fork();
  if (child == 0) {
    if (::setresuid(user, user, user) != 0) ::_exit(1);
    const std::string text = act();
    (void)!::write(ends[1], text.data(), text.size());
    ::_exit(0);
  }
  ::close(ends[1]);
  std::string text;
  char buffer[512];
  for (ssize_t size = 0; (size = ::read(ends[0], buffer, sizeof buffer)) > 0;) {
    text.append(buffer, static_cast<std::size_t>(size));
  }
  ::close(ends[0]);
  int status = 0;
  ::waitpid(child, &status, 0);
  EXPECT_EQ(status, 0);
  return text;
}

bool Await(const std::function<bool()>& holds) {
  const auto end = std::chrono::steady_clock::now() + kPatience;
  while (!holds()) {
    if (std::chrono::steady_clock::now() > end) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  return true;
}

class PasswordServiceTest : public testing::Test {
 protected:
  void SetUp() override {
    if (::geteuid() != 0) GTEST_SKIP() << "The service runs as root";
    ::chmod(folder_.path().c_str(), 0755);
  }

  void Rules(const std::string& rules) const { std::ofstream(folder_.File("vexad")) << rules; }
  std::string Socket() const { return folder_.File("socket"); }
  // Starts the service after the shell's commands, in a mount namespace of its own.
  void Start(const std::string& commands = "") {
    const std::string script = commands + "exec \"$@\"";
    program_ = std::make_unique<Process>(
        ProcessOptions{.argv = {"unshare", "--mount", "sh", "-ec", script, "sh", CONFINED_PROGRAM,
                                VEXA_SOURCE_DIR "/packaging/vexa-auth.service", "--", VEXA_AUTH, "--socket", Socket(),
                                "--user", "nobody", "--pam-directory", folder_.path()}});
    ASSERT_TRUE(Await([this] { return ::access(Socket().c_str(), F_OK) == 0; })) << program_->errors();
    ::chmod(Socket().c_str(), 0666);  // its group decides in production
  }
  std::string Ask(const std::string& name, const std::string& password, const std::string& service = "vexad") const {
    return As(kNobody, [&] { return TextOf(AskPasswordService(Socket(), {service, name, password})); });
  }
  // The answer to a packet; "": none.
  std::string Reply(const std::string& packet) const {
    const Result<Descriptor> socket = ConnectForPackets(Socket(), 30);
    if (!socket) return socket.error().ToString();
    (void)::send(socket->get(), packet.data(), packet.size(), MSG_NOSIGNAL);
    char buffer[1024];
    const ssize_t size = ::recv(socket->get(), buffer, sizeof buffer, 0);
    return size > 0 ? std::string(buffer, static_cast<std::size_t>(size)) : std::string();
  }
  // A rule with a program that takes the password: it ends with 0 for a right one.
  std::string Program(const std::string& lines) const {
    const std::string path = folder_.File("check.sh");
    std::ofstream(path) << "#!/bin/sh\n" << lines;
    ::chmod(path.c_str(), 0755);
    return "auth [success=1 default=ignore] pam_exec.so quiet expose_authtok " + path +
           "\nauth requisite pam_deny.so\nauth required pam_permit.so\naccount required pam_permit.so\n";
  }

  TempDir folder_;
  std::unique_ptr<Process> program_;
};

TEST_F(PasswordServiceTest, Rights_OfTheUnit_AreTheAuditLogOnly) {
  Start();
  std::ostringstream status;
  status << std::ifstream("/proc/" + std::to_string(program_->pid()) + "/status").rdbuf();
  // CAP_AUDIT_WRITE is the 29th.
  for (const char* set : {"CapPrm", "CapEff", "CapBnd"}) {
    EXPECT_THAT(status.str(), HasSubstr(std::string(set) + ":\t0000000020000000\n"));
  }
  EXPECT_THAT(status.str(), AllOf(HasSubstr("NoNewPrivs:\t1\n"), HasSubstr("Seccomp:\t2\n")));
}

// The real module, with accounts of the machine's files in its own mount namespace.
TEST_F(PasswordServiceTest, PamUnix_AccountsOfTheMachine_AreCheckedForAnotherAccount) {
  Rules("auth required pam_unix.so nodelay\naccount required pam_unix.so\n");
  std::string shadow = folder_.File("shadow");
  const std::string hash = ::crypt("right Passw\xC3\xB6rd", "$6$rounds=1000$salt$");
  std::ofstream(shadow) << "alice:" << hash << ":19000:0:99999:7:::\nold:" << hash << ":19000:0:99999:7::19001:\n"
                        << "aged:" << hash << ":19000:0:1:7:::\nlocked:!" << hash << ":19000:0:99999:7:::\n"
                        << "empty::19000:0:99999:7:::\n";
  ::chmod(shadow.c_str(), 0600);
  std::ofstream passwd(folder_.File("passwd"));
  passwd << "root:x:0:0::/root:/bin/sh\nnobody:x:65534:65534::/:/bin/sh\n";
  for (const char* name : {"alice", "old", "aged", "locked", "empty"}) passwd << name << ":x:4321:4321::/:/bin/sh\n";
  passwd.close();
  Start("mount --bind " + shadow + " /etc/shadow; mount --bind " + folder_.File("passwd") + " /etc/passwd; ");

  EXPECT_EQ(Ask("alice", "right Passw\xC3\xB6rd"), "right: alice");
  for (const char* wrong : {"", "right Passw\xC3\xB6r", "right Passw\xC3\xB6rd ", "wrong"}) {
    EXPECT_EQ(Ask("alice", wrong), "wrong") << wrong;
  }
  EXPECT_EQ(Ask("missing", "right Passw\xC3\xB6rd"), "wrong");
  EXPECT_EQ(Ask("locked", "right Passw\xC3\xB6rd"), "wrong");
  EXPECT_EQ(Ask("empty", ""), "wrong");
  EXPECT_EQ(Ask("old", "right Passw\xC3\xB6rd"), "unusable: User account has expired");
  EXPECT_EQ(Ask("aged", "right Passw\xC3\xB6rd"),
            "unusable: Authentication token is no longer valid; new one required");
}

TEST_F(PasswordServiceTest, Pam_CannotCheck_IsAFailureWithItsReason) {
  Start();
  Rules("auth required pam_debug.so auth=authinfo_unavail\naccount required pam_permit.so\n");
  EXPECT_EQ(Ask("daemon", "x"), "failed: Authentication service cannot retrieve authentication info");
  Rules("auth required pam_missing.so\naccount required pam_permit.so\n");
  EXPECT_EQ(Ask("daemon", "x"), "failed: Module is unknown");
}

TEST_F(PasswordServiceTest, Question_AboutAnotherPamService_IsRefused) {
  Rules(kPermit);
  Start();
  EXPECT_EQ(Ask("daemon", "x"), "right: daemon");
  EXPECT_EQ(Ask("daemon", "x", "other"),
            "failed: The service vexa-auth checks passwords with the PAM service 'vexad', not 'other'. Set its option "
            "--service");
}

TEST_F(PasswordServiceTest, User_Other_IsDisconnected) {
  Rules(kPermit);
  Start();
  EXPECT_EQ(As(1234,
               [&] {
                 return TextOf(AskPasswordService(Socket(), {"vexad", "daemon", "x"}));
               }),
            "failed: The service vexa-auth does not answer");
  EXPECT_EQ(Ask("daemon", "x"), "right: daemon");
}

TEST_F(PasswordServiceTest, Packet_Hostile_HasNoAnswerAndTheServiceGoesOn) {
  Rules(kPermit);
  Start();
  const std::string nul(1, '\0');
  const std::string daemon = "vexad" + nul + "daemon" + nul;
  for (const std::string& packet :
       {std::string("x"), nul, nul + nul, std::string("vexad") + nul + "daemon", daemon + "x" + nul + "y", daemon + nul,
        "vexad" + nul + "../root" + nul + "x", "vexad" + nul + nul + "x",
        "vexad" + nul + std::string(65, 'a') + nul + "x", std::string(65, 's') + nul + "daemon" + nul + "x",
        daemon + std::string(PAM_MAX_RESP_SIZE, 'x'), std::string(100'000, 'x')}) {
    EXPECT_THAT(Reply(packet), IsEmpty()) << packet.size();
  }
  EXPECT_EQ(Reply(daemon + std::string(PAM_MAX_RESP_SIZE - 1, 'x')), "right" + nul + "daemon");
  EXPECT_EQ(Ask("daemon", "x"), "right: daemon");
}

TEST_F(PasswordServiceTest, Password_WithANulOrTooLong_IsWrongWithoutAQuestion) {
  EXPECT_EQ(Ask("daemon", std::string("x\0y", 3)), "wrong");
  EXPECT_EQ(Ask("daemon", std::string(PAM_MAX_RESP_SIZE, 'x')), "wrong");
  EXPECT_EQ(Ask(std::string("daemon\0", 7), "x"), "wrong");
  EXPECT_THAT(Ask("daemon", "x"), HasSubstr("failed: The service vexa-auth cannot be reached: No such file"));
}

// Three clients that say nothing, and a check that does not end before the others have their answers.
TEST_F(PasswordServiceTest, Clients_SilentAndSlow_DoNotKeepOthersWaiting) {
  const std::string go_on = folder_.File("go_on");
  Rules(Program("[ \"$PAM_USER\" = bin ] || exit 0\nwhile [ ! -e " + go_on + " ]; do sleep 0.05; done\n"));
  Start();
  std::vector<Descriptor> silent;
  for (int i = 0; i < 3; ++i) silent.push_back(*ConnectForPackets(Socket(), 30));
  std::future<std::string> slow = std::async(std::launch::async, [&] {
    return TextOf(AskPasswordService(Socket(), {"vexad", "bin", "x"}, 60));
  });
  for (int i = 0; i < 3; ++i)
    EXPECT_EQ(TextOf(AskPasswordService(Socket(), {"vexad", "daemon", "x"})), "right: daemon");
  EXPECT_EQ(slow.wait_for(std::chrono::seconds(0)), std::future_status::timeout);
  std::ofstream(go_on) << "\n";
  EXPECT_EQ(slow.get(), "right: bin");
  // The silent ones are disconnected after their time.
  char byte = 0;
  for (const Descriptor& socket : silent) EXPECT_EQ(::recv(socket.get(), &byte, 1, 0), 0);
}

TEST_F(PasswordServiceTest, Check_ThatDoesNotEnd_IsAFailureAfterItsTime) {
  Rules(Program("sleep 300\n"));
  Result<Descriptor> listener = ListenForPackets(Socket());
  ASSERT_TRUE(listener);
  const pid_t service = ::fork();
  if (service == 0) {
    accounts::PasswordServiceOptions options;
    options.listener = listener->get();
    options.config_directory = folder_.path();
    options.question_timeout_s = options.check_timeout_s = 1;
    accounts::ServePasswordChecks(options);
    ::_exit(0);
  }
  EXPECT_EQ(TextOf(AskPasswordService(Socket(), {"vexad", "daemon", "x"})),
            "failed: The service vexa-auth does not answer");
  ::kill(service, SIGKILL);
  ::waitpid(service, nullptr, 0);
}

TEST_F(PasswordServiceTest, Answers_OfAServiceThatIsNotOurs_AreFailures) {
  const Result<Descriptor> listener = ListenForPackets(Socket());
  ASSERT_TRUE(listener);
  const std::string nul(1, '\0');
  for (const std::string& answer :
       {std::string("yes"), std::string("right"), "right" + nul + "../root", "rightx" + nul + "a", nul + "daemon"}) {
    std::thread service([&] {
      const Descriptor socket(::accept(listener->get(), nullptr, nullptr));
      char buffer[1024];
      (void)!::recv(socket.get(), buffer, sizeof buffer, 0);
      (void)!::send(socket.get(), answer.data(), answer.size(), MSG_NOSIGNAL);
    });
    EXPECT_EQ(TextOf(AskPasswordService(Socket(), {"vexad", "daemon", "x"})),
              "failed: The answer of the service vexa-auth is not valid");
    service.join();
  }
}

// What a host does: the service answers while its socket exists, else the process itself.
TEST_F(PasswordServiceTest, Accounts_WithTheSocket_AskTheService) {
  Rules(Program("[ \"$(tr -d '\\000')\" = right ]\n"));
  accounts::PamOptions options;
  options.auth_socket = Socket();
  options.config_directory = folder_.File("here");
  ::mkdir(options.config_directory.c_str(), 0755);
  std::ofstream(options.config_directory + "/vexad") << "auth required pam_deny.so\naccount required pam_permit.so\n";
  const auto provider = accounts::MakePamAccounts(options);
  EXPECT_EQ(provider->VerifyPassword("daemon", "right").error().code(), ErrorCode::kDenied);
  Start();
  const auto user = provider->VerifyPassword("daemon", "right");
  ASSERT_TRUE(user.ok()) << user.error().ToString();
  EXPECT_EQ(user->uid, 1U);
  EXPECT_EQ(provider->VerifyPassword("daemon", "wrong").error().code(), ErrorCode::kDenied);
  program_.reset();
  EXPECT_EQ(provider->VerifyPassword("daemon", "right").error().ToString(),
            "The password cannot be checked now: The service vexa-auth cannot be reached: Connection refused");
}

TEST_F(PasswordServiceTest, Program_SocketOfTheServiceManager_IsServed) {
  Rules(kPermit);
  const Process manager({.argv = {"systemd-socket-activate", "--seqpacket", "--listen", Socket(), VEXA_AUTH,
                                  "--pam-directory", folder_.path()}});
  // The socket has its name before anybody listens.
  EXPECT_TRUE(Await([&] {
    return TextOf(AskPasswordService(Socket(), {"vexad", "daemon", "x"})) == "right: daemon";
  })) << manager.errors();
  // Programs that PAM modules start do not inherit the socket.
  std::ifstream file("/proc/" + std::to_string(manager.pid()) + "/fdinfo/3");
  std::string word;
  while (file >> word && word != "flags:") {
  }
  unsigned flags = 0;
  file >> std::oct >> flags;
  EXPECT_NE(flags & O_CLOEXEC, 0U);
}

TEST_F(PasswordServiceTest, Program_ArgumentsWrong_SaysWhy) {
  const std::string usage = "vexa-auth [--socket PATH] [--user NAME] [--service NAME] [--pam-directory PATH]\n";
  const auto wrong = RunProcess({.argv = {VEXA_AUTH, "--socket"}});
  EXPECT_EQ(wrong.exit_code, 2);
  EXPECT_EQ(wrong.errors, "usage: " + usage);
  const auto help = RunProcess({.argv = {VEXA_AUTH, "--help"}});
  EXPECT_EQ(help.exit_code, 0);
  EXPECT_THAT(help.output, HasSubstr("Usage: " + usage));
  const auto user = RunProcess({.argv = {VEXA_AUTH, "--user", "missing"}});
  EXPECT_EQ(user.exit_code, 1);
  EXPECT_EQ(user.errors, "vexa-auth: There is no user 'missing'\n");
  const auto path = RunProcess({.argv = {VEXA_AUTH, "--socket", "/run/missing/socket"}});
  EXPECT_EQ(path.exit_code, 1);
  EXPECT_EQ(path.errors, "vexa-auth: Cannot listen on '/run/missing/socket': No such file or directory\n");
}

}  // namespace
}  // namespace vexa::test
