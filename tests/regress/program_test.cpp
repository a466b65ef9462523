// The programs vexad and run-sample-host, and the checks in tools/.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <regex>
#include <sstream>
#include <thread>

#include "host/base/files.h"
#include "tests/support/http_client.h"
#include "tests/support/process.h"
#include "tests/support/temp_dir.h"

namespace {

using vexa::test::HttpClient;
using vexa::test::Process;
using vexa::test::TempDir;

constexpr std::chrono::seconds kTimeout{60};

int PortIn(const std::string& log) {
  std::smatch match;
  return std::regex_search(log, match, std::regex("http://127.0.0.1:([0-9]+)")) ? std::stoi(match[1]) : 0;
}

HttpClient OnSocket(const std::string& path) {
  vexa::test::HttpTarget target;
  target.url = "http://localhost";
  target.unix_socket = path;
  return HttpClient(target);
}

class Connection {
 public:
  explicit Connection(int port) : fd_(::socket(AF_INET, SOCK_STREAM, 0)) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    is_connected_ = ::connect(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
  }
  Connection(Connection&& other) noexcept : fd_(std::exchange(other.fd_, -1)), is_connected_(other.is_connected_) {}
  ~Connection() {
    if (fd_ >= 0) ::close(fd_);
  }
  bool connected() const { return is_connected_; }
  bool Send(const std::string& text) const {
    return ::send(fd_, text.data(), text.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(text.size());
  }
  std::string ReadAll() const {
    std::string all;
    char buffer[4096];
    for (ssize_t size = 0; (size = ::recv(fd_, buffer, sizeof buffer, 0)) > 0;) {
      all.append(buffer, static_cast<std::size_t>(size));
    }
    return all;
  }

 private:
  int fd_;
  bool is_connected_ = false;
};

// The header and the first byte of the body: the daemon waits for the rest of the request.
std::string FirstHalfOfRequest() {
  return "POST /webapi/VEXA.Core.Session/login HTTP/1.1\r\nHost: a\r\nContent-Type: application/json\r\n"
         "Content-Length: 2\r\n\r\n{";
}

TEST(DaemonProgram, Connections_LowFileLimit_LeaveDescriptorsForOtherWork) {
  const TempDir folder;
  // `ulimit` sets the hard limit as well: the daemon cannot raise it.
  Process daemon(
      {.argv = {"sh", "-c", "ulimit -n 512; exec \"$0\" \"$@\"", VEXAD_PROGRAM, "--data", folder.File("data"),
                "--socket", folder.File("s"), "--listen", "127.0.0.1:0", "--log", "stderr"}});
  ASSERT_TRUE(daemon.WaitForText("Ready.", kTimeout)) << daemon.errors();
  HttpClient local = OnSocket(folder.File("s"));
  EXPECT_EQ(local.PostJson("/webapi/VEXA.Core.Session/info", "").status, 200);
  std::vector<Connection> idle;
  for (int i = 0; i < 700; ++i) idle.emplace_back(PortIn(daemon.errors()));
  EXPECT_EQ(local.PostJson("/webapi/VEXA.Core.Session/info", "").status, 200) << daemon.errors();
  daemon.Signal(SIGTERM);
  const auto status = daemon.Wait(kTimeout);
  ASSERT_TRUE(status.has_value());
  EXPECT_EQ(status->code, 0);
}

TEST(DaemonProgram, LogLines_EndInTheRequestsId) {
  const TempDir folder;
  Process daemon({.argv = {VEXAD_PROGRAM, "--data", folder.File("data"), "--socket", folder.File("s"), "--listen",
                           "none", "--log", "stderr"}});
  ASSERT_TRUE(daemon.WaitForText("Ready.", kTimeout)) << daemon.errors();
  const auto reply =
      OnSocket(folder.File("s")).PostJson("/webapi/VEXA.Virtualization.Guest/get", R"({"guest_id":"\n%s"})");
  ASSERT_TRUE(reply.headers.contains("x-request-id"));
  EXPECT_TRUE(daemon.WaitForText(
      R"( Bad parameters, request: {"guest_id":"\n%s"} [request )" + reply.headers.at("x-request-id") + "]\n",
      kTimeout))
      << daemon.errors();
}

TEST(DaemonProgram, StopSignal_FinishesRequests_SecondEndsImmediately) {
  const TempDir folder;
  for (const bool sends_second_signal : {false, true}) {
    Process daemon({.argv = {VEXAD_PROGRAM, "--data", folder.File("data"), "--socket", folder.File("s"), "--listen",
                             "127.0.0.1:0", "--log", "stderr"}});
    ASSERT_TRUE(daemon.WaitForText("Ready.", kTimeout)) << daemon.errors();
    const Connection client(PortIn(daemon.errors()));
    ASSERT_TRUE(client.Send(FirstHalfOfRequest()));
    EXPECT_EQ(OnSocket(folder.File("s")).Get("/healthz").status, 200);
    std::this_thread::sleep_for(std::chrono::milliseconds(200));  // until the daemon has received it
    daemon.Signal(SIGTERM);
    ASSERT_TRUE(daemon.WaitForText("Stopping.", kTimeout));
    if (sends_second_signal) {
      daemon.Signal(SIGTERM);
    } else {
      ASSERT_TRUE(client.Send("}"));
      EXPECT_TRUE(client.ReadAll().starts_with("HTTP/1.1 400 "));
    }
    const auto status = daemon.Wait(kTimeout);
    ASSERT_TRUE(status.has_value());
    EXPECT_EQ(status->code, sends_second_signal ? 128 + SIGTERM : 0);
  }
}

// A copy of the tree for the script: tools and examples, and links to the programs where the script expects them.
void MakeTree(const TempDir& folder) {
  const std::string script = std::string("set -e; cd '") + folder.path() + "'; mkdir -p 't r/build/release/cli' " +
                             "'t r/build/release/host/daemon'; cp -r '" VEXA_SOURCE_DIR "/tools' '" VEXA_SOURCE_DIR
                             "/examples' 't r'; ln -s '" VEXA_PROGRAM
                             "' 't r/build/release/cli/vexa'; ln -s '" VEXAD_PROGRAM
                             "' 't r/build/release/host/daemon/vexad'";
  const auto made = vexa::test::RunProcess({.argv = {"sh", "-c", script}});
  ASSERT_EQ(made.exit_code, 0) << made.errors;
}

vexa::test::ProcessOptions Script(const TempDir& folder, const char* what) {
  return {
      .argv = {folder.File("t r/tools/run-sample-host"), what},
      .environment = {{"VEXA_RUN_DIR", what == std::string("sample") ? std::optional(folder.File("r")) : std::nullopt},
                      {"VEXA_PORT", what == std::string("sample") ? std::optional("0") : std::nullopt}}};
}

// Ctrl-C reached the daemon and the script, and the script sent the daemon a second signal.
TEST(SampleHost, CtrlC_FinishesCurrentRequests) {
  const TempDir folder;
  MakeTree(folder);
  Process script(Script(folder, "sample"));
  ASSERT_TRUE(script.WaitForText("Ctrl-C stops it.", kTimeout)) << script.errors();
  const Connection client(PortIn(script.output()));
  ASSERT_TRUE(client.Send(FirstHalfOfRequest()));
  EXPECT_EQ(OnSocket(folder.File("r/vexad.sock")).Get("/healthz").status, 200);
  std::this_thread::sleep_for(std::chrono::milliseconds(200));
  ::kill(-script.pid(), SIGINT);
  std::this_thread::sleep_for(std::chrono::milliseconds(500));
  EXPECT_TRUE(client.Send("}"));
  EXPECT_TRUE(client.ReadAll().starts_with("HTTP/1.1 400 "));
  EXPECT_TRUE(script.Wait(kTimeout).has_value());
}

// A single request, or a second host, replaced the records of the running one and its log.
TEST(SampleHost, RunSampleHost_HostRunning_OneRequestWorksAndSecondHostIsRefused) {
  const TempDir folder;
  MakeTree(folder);
  Process script(Script(folder, "sample"));
  ASSERT_TRUE(script.WaitForText("Ctrl-C stops it.", kTimeout)) << script.errors();
  const auto log = vexa::ReadFile(folder.File("r/vexad.log"), 1 << 20);
  const auto single_request = vexa::test::RunProcess(Script(folder, "once"));
  EXPECT_EQ(single_request.exit_code, 0) << single_request.errors;
  const auto second = vexa::test::RunProcess(Script(folder, "sample"));
  EXPECT_EQ(second.exit_code, 1);
  EXPECT_NE(second.errors.find("Another host runs in"), std::string::npos) << second.errors;
  EXPECT_EQ(second.output, "") << "nothing was imported";
  EXPECT_EQ(*vexa::ReadFile(folder.File("r/vexad.log"), 1 << 20), *log);
  ::kill(-script.pid(), SIGINT);
  EXPECT_TRUE(script.Wait(kTimeout).has_value());
}

// The script printed only the log of the start that had failed, without the variable that helps.
TEST(SampleHost, Port_InUse_IsAnsweredWithTheVariable) {
  const TempDir folder;
  MakeTree(folder);
  Process script(Script(folder, "sample"));
  ASSERT_TRUE(script.WaitForText("Ctrl-C stops it.", kTimeout)) << script.errors();
  const int port = PortIn(script.output());
  vexa::test::ProcessOptions options = Script(folder, "sample");
  options.environment["VEXA_RUN_DIR"] = folder.File("other");
  options.environment["VEXA_PORT"] = std::to_string(port);
  const auto second = vexa::test::RunProcess(options);
  EXPECT_EQ(second.exit_code, 1);
  EXPECT_NE(second.errors.find("Port " + std::to_string(port) + " is in use by process "), std::string::npos)
      << second.errors;
  EXPECT_NE(second.errors.find("(vexad). Choose another one: VEXA_PORT=" + std::to_string(port + 1) + " ./dev run\n"),
            std::string::npos)
      << second.errors;
  ::kill(-script.pid(), SIGINT);
  EXPECT_TRUE(script.Wait(kTimeout).has_value());
}

TEST(SampleHost, Guests_OfTheSample_RunAndAreHealthy) {
  const TempDir folder;
  MakeTree(folder);
  Process script(Script(folder, "sample"));
  ASSERT_TRUE(script.WaitForText("Ctrl-C stops it.", kTimeout)) << script.errors();
  for (const char* const guest :
       {"web-1 +running +healthy", "mail-1 +running +healthy", "build-1 +shutdown +healthy"}) {
    EXPECT_TRUE(std::regex_search(script.output(), std::regex(guest))) << guest << script.output();
  }
  const auto start = vexa::test::RunProcess(
      {.argv = {VEXA_PROGRAM, "--socket", folder.File("r/vexad.sock"), "guest", "start", "build-1", "--wait"}});
  EXPECT_EQ(start.exit_code, 0) << start.errors;
  ::kill(-script.pid(), SIGINT);
  EXPECT_TRUE(script.Wait(kTimeout).has_value());
}

// The last of the things to try had the password in the arguments of curl, where other users could read it.
TEST(SampleHost, ThingsToTry_WorkAsPrinted_WithoutSecretsInArguments) {
  const TempDir folder;
  MakeTree(folder);
  Process script(Script(folder, "sample"));
  ASSERT_TRUE(script.WaitForText("Ctrl-C stops it.", kTimeout)) << script.errors();
  const std::string all = script.output();
  std::istringstream lines(all.substr(all.find("Try next, ")));
  const std::regex numbered("  [1-9]\\. (vexa [^ ]+( [^ ]+)*)(   *.*)?");
  std::string commands = "set -e\n";
  int things = 0;
  for (std::string line; std::getline(lines, line) && !line.starts_with("Ctrl-C");) {
    std::smatch match;
    if (std::regex_match(line, match, numbered)) {
      // It follows the log until Ctrl-C.
      commands += match[1] == "vexa log -f" ? "vexa log --all\n" : match[1].str() + "\n";
    } else if (line.starts_with("     ") || line.starts_with("  . ")) {
      commands += line.substr(2) + "\n";
    }
    if (line.starts_with("  " + std::to_string(things + 1) + ". ")) ++things;
  }
  EXPECT_EQ(things, 5) << all;
  const auto password = vexa::ReadFile(folder.File("r/admin-password"), 1000);
  ASSERT_TRUE(password.ok());
  EXPECT_EQ(commands.find(password->substr(0, password->find('\n'))), std::string::npos) << commands;
  const auto run = vexa::test::RunProcess({.argv = {"bash", "-c", commands}});
  EXPECT_EQ(run.exit_code, 0) << run.errors << commands;
  for (const char* const expected : {"build-1: started on ", "web-1: edited", "Created the guest 'test-1'",
                                     "\"name\":\"web-1\"", "\"vcpu_num\":4"}) {
    EXPECT_NE(run.output.find(expected), std::string::npos) << expected << "\n" << run.output << run.errors;
  }
  ::kill(-script.pid(), SIGINT);
  EXPECT_TRUE(script.Wait(kTimeout).has_value());
}

// The script generated and printed a new password, while the account kept the old one.
TEST(SampleHost, SavedPassword_FileDeleted_PrintedPasswordWorks) {
  const TempDir folder;
  MakeTree(folder);
  vexa::test::ProcessOptions options = Script(folder, "once");
  options.environment["VEXA_RUN_DIR"] = folder.File("r");
  ASSERT_EQ(vexa::test::RunProcess(options).exit_code, 0);
  ASSERT_EQ(::unlink(folder.File("r/admin-password").c_str()), 0);
  const auto again = vexa::test::RunProcess(options);
  EXPECT_EQ(again.exit_code, 0) << again.errors;
}

// The check did not find an include after a tab, or an accessor after a pointer.
TEST(CheckBorders, UnusualSpelling_IsRefused) {
  for (const char* line : {"\t#include <thread>", "#\tinclude <fstream>", "int n = value->asInt();"}) {
    const TempDir root;
    for (const char* name : {"guest", "utils", "platform"}) {
      ASSERT_TRUE(vexa::CreateDirectories(root.File("webapi/" + std::string(name)), 0700).ok());
    }
    const std::vector<std::string> command{VEXA_SOURCE_DIR "/tools/check-borders", root.path()};
    std::ofstream(root.File("webapi/utils/a.cpp")) << "#include <string>\n";
    EXPECT_EQ(vexa::test::RunProcess({.argv = command}).exit_code, 0);
    std::ofstream(root.File("webapi/guest/b.cpp")) << line << "\n";
    EXPECT_EQ(vexa::test::RunProcess({.argv = command}).exit_code, 1) << line;
  }
}

// Folders of the host could include each other freely. Now a lower one must not include a higher one.
TEST(CheckBorders, HigherOrUnknownRoom_IsRefused) {
  const TempDir root;
  for (const char* room :
       {"host/base", "host/store", "host/attic", "webapi/guest", "webapi/utils", "webapi/platform"}) {
    ASSERT_TRUE(vexa::CreateDirectories(root.File(room), 0700).ok());
  }
  const auto check = [&root] {
    return vexa::test::RunProcess({.argv = {VEXA_SOURCE_DIR "/tools/check-borders", root.path()}});
  };
  std::ofstream(root.File("webapi/utils/a.cpp")) << "#include <string>\n";
  std::ofstream(root.File("host/base/low.h")) << "#pragma once\n";
  std::ofstream(root.File("host/store/high.cpp")) << "#include \"host/base/low.h\"\n";
  EXPECT_EQ(check().exit_code, 0);
  std::ofstream(root.File("host/base/low.h")) << "#include \"host/store/high.h\"\n";
  EXPECT_EQ(check().exit_code, 1);
  std::ofstream(root.File("host/base/low.h")) << "#pragma once\n";
  std::ofstream(root.File("host/attic/new.cpp")) << "#include \"host/base/low.h\"\n";
  const auto unknown = check();
  EXPECT_EQ(unknown.exit_code, 1);
  EXPECT_NE(unknown.errors.find("host/attic"), std::string::npos) << unknown.errors;
}

// Clang cannot check what a std::mutex guards, so access without the lock was not found.
TEST(CheckBorders, LockThatClangCannotCheck_IsRefused) {
  const TempDir root;
  for (const char* room : {"host/base", "cli", "webapi/guest", "webapi/utils", "webapi/platform"}) {
    ASSERT_TRUE(vexa::CreateDirectories(root.File(room), 0700).ok());
  }
  const auto check = [&root] {
    return vexa::test::RunProcess({.argv = {VEXA_SOURCE_DIR "/tools/check-borders", root.path()}});
  };
  std::ofstream(root.File("host/base/mutex.h")) << "#include <mutex>\n";
  EXPECT_EQ(check().exit_code, 0);
  for (const char* file : {"host/base/other.h", "cli/other.cpp"}) {
    std::ofstream(root.File(file)) << "#include <mutex>\n";
    const auto refused = check();
    EXPECT_EQ(refused.exit_code, 1) << file;
    EXPECT_NE(refused.errors.find(std::string(file) + ":1:"), std::string::npos) << refused.errors;
    ASSERT_EQ(::unlink(root.File(file).c_str()), 0);
  }
}

// Error codes were defined in many places, because the library and the host had no header in common.
TEST(CheckBorders, ErrorCodes_AreForAllRoomsAndIncludeNothing) {
  const TempDir root;
  for (const char* room : {"host/base", "webapi/guest", "webapi/utils", "webapi/platform"}) {
    ASSERT_TRUE(vexa::CreateDirectories(root.File(room), 0700).ok());
  }
  const auto check = [&root] {
    return vexa::test::RunProcess({.argv = {VEXA_SOURCE_DIR "/tools/check-borders", root.path()}}).exit_code;
  };
  std::ofstream(root.File("webapi/error_codes.h")) << "#pragma once\n";
  std::ofstream(root.File("webapi/utils/a.cpp")) << "#include \"webapi/error_codes.h\"\n";
  std::ofstream(root.File("host/base/a.cpp")) << "#include \"webapi/error_codes.h\"\n";
  EXPECT_EQ(check(), 0);
  std::ofstream(root.File("webapi/platform/a.h")) << "#include \"webapi/error_codes.h\"\n";
  EXPECT_EQ(check(), 1) << "the platform's declarations stay apart from the codes";
  std::ofstream(root.File("webapi/platform/a.h")) << "#include <string>\n";
  EXPECT_EQ(check(), 0);
  std::ofstream(root.File("webapi/error_codes.h")) << "#include <string>\n";
  EXPECT_EQ(check(), 1);
}

// No check found unclear phrases in comments, messages and names.
TEST(CheckWords, CheckWords_BannedPhrase_IsRefused) {
  const TempDir root;
  const auto check = [&root](const std::string& text) {
    std::ofstream(root.File("a.cpp")) << text << "\n";
    return vexa::test::RunProcess({.argv = {VEXA_SOURCE_DIR "/tools/check-words", root.File("a.cpp")}});
  };
  for (const char* allowed :
       {"// The value is not a number.", "const char* text = \"Nobody knows\";", "int told = 0;"}) {
    const auto result = check(allowed);
    EXPECT_EQ(result.exit_code, 0) << allowed << result.output << result.errors;
  }
  for (const auto& [text, position] :
       {std::pair("// The value is no number.", "a.cpp:1: 'is no'"),
        std::pair("\n// It is\n// no number.", "a.cpp:2: 'is no'"),
        std::pair("const char* text = \"The user is told\";", "a.cpp:1: 'told'"),
        std::pair("// a is none", "a.cpp:1: 'is none'"),
        std::pair("TEST(Value, IsNone_GivesTheDefault) {}", "a.cpp:1: 'IsNone_GivesTheDefault'"),
        std::pair("TEST(A, B_IsWhatC) {}", "a.cpp:1: 'B_IsWhatC'")}) {
    const auto result = check(text);
    EXPECT_EQ(result.exit_code, 1) << text;
    EXPECT_NE(result.output.find(position), std::string::npos) << result.output << result.errors;
  }
}

}  // namespace
